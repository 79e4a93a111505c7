#include "net/listen_port.h"

#include <cstdlib>

namespace vt::net {

std::optional<uint16_t> parsePort(std::string_view text) {
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    if (text.empty() || text.size() > 5) return std::nullopt;
    uint32_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + static_cast<uint32_t>(c - '0');
    }
    if (value > 65'535) return std::nullopt;
    return static_cast<uint16_t>(value);
}

uint16_t listenPortFromEnv(const char* variable) {
    const char* value = std::getenv(variable);
    if (value == nullptr) return 0;
    return parsePort(value).value_or(0);
}

uint16_t advertisedPortFromEnv(const char* variable, uint16_t bound) {
    const char* value = std::getenv(variable);
    if (value == nullptr) return bound;
    return parsePort(value).value_or(bound);
}

}  // namespace vt::net
