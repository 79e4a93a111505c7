// Ports from the environment, for reaching the host through a forwarder.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace vt::net {

// Decimal 0..65535 with an optional leading "+"; anything else is nothing.
std::optional<uint16_t> parsePort(std::string_view text);
// The named variable as a port, or 0 (the system picks) when absent or invalid.
uint16_t listenPortFromEnv(const char* variable);
// The named variable as a port, or `bound` when absent or invalid.
uint16_t advertisedPortFromEnv(const char* variable, uint16_t bound);

}  // namespace vt::net
