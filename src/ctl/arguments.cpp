#include "ctl/arguments.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>

namespace vt::ctl {

std::optional<int> parseSlot(const std::string& text) {
    if (text.empty() || text.size() > 9) return std::nullopt;
    for (char c : text)
        if (c < '0' || c > '9') return std::nullopt;
    return std::stoi(text);
}

std::optional<double> parseNumber(const std::string& text, double lower, double upper) {
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (errno != 0 || end != text.c_str() + text.size() || !std::isfinite(v)) return std::nullopt;
    if (v < lower || v > upper) return std::nullopt;
    return v;
}

std::optional<bool> parseSwitch(const std::string& text) {
    if (text == "on" || text == "true" || text == "1" || text == "yes") return true;
    if (text == "off" || text == "false" || text == "0" || text == "no") return false;
    return std::nullopt;
}

}  // namespace vt::ctl
