#include "settings/bounded_text.h"

namespace vt::settings {

std::string boundedText(std::string_view text, size_t maxCharacters) {
    size_t characters = 0;
    size_t end = 0;
    while (end < text.size() && characters < maxCharacters) {
        ++end;
        while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) ++end;
        ++characters;
    }
    return std::string(text.substr(0, end));
}

}  // namespace vt::settings
