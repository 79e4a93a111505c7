// Names that come from outside (typed by a person, sent by a phone or the
// remote, read back from disk) are kept to a length a strip can show: a name
// of sixty thousand characters would otherwise be stored, and sent in every
// state message.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vt::settings {

inline constexpr size_t kMaxNameCharacters = 64;

// At most `maxCharacters` characters of `text`, never cut inside a UTF-8
// sequence.
std::string boundedText(std::string_view text, size_t maxCharacters = kMaxNameCharacters);

}  // namespace vt::settings
