// DNS-SD TXT records: the key=value strings a service advertises beside its
// name. They come from any device on the network, so reading them is bounded
// and forgiving: a broken string is skipped, never an error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace vt::discovery {

// Keys in lower case (DNS-SD keys ignore case); values as text.
using TxtRecord = std::map<std::string, std::string>;

// A record holds at most this many keys; later strings are ignored.
inline constexpr size_t maxTxtKeys = 64;
// Longer keys are skipped: DNS-SD keys are meant to be nine characters.
inline constexpr size_t maxTxtKeyBytes = 64;
// A whole record as read off the wire; the rest is ignored.
inline constexpr size_t maxTxtRecordBytes = 8192;

// One string "key=value" (or "key", a flag with an empty value). An empty
// key, a key too long, or one with a control character is skipped. Values
// are repaired to UTF-8 and lose control characters, since some reach the
// screen (a TV's name). The first of a repeated key wins, as DNS-SD says.
void addTxtString(TxtRecord& into, std::string_view entry);

// The wire form: each string prefixed by its length in one byte. A length
// that runs past the end ends the reading; what came before stays.
TxtRecord parseTxtWire(const uint8_t* data, size_t size);

// Text a remote device chose, made safe to show and to keep: valid UTF-8,
// no control characters, at most `maxBytes` bytes (cut on a character).
std::string cleanRemoteText(std::string_view bytes, size_t maxBytes);

}  // namespace vt::discovery
