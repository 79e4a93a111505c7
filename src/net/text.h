// Small text helpers for bytes that arrive from the network.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vt::net {

bool isValidUtf8(std::string_view bytes);
// Replaces every malformed sequence with U+FFFD, as a browser would.
std::string repairUtf8(std::string_view bytes);
// %XX decoding; nothing if an escape is broken or the result is not UTF-8.
std::optional<std::string> percentDecode(std::string_view text);
std::string_view trimBlanks(std::string_view text);
std::string toLowerAscii(std::string_view text);

}  // namespace vt::net
