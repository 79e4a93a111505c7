#include "airplay_tool/transport_header.h"

#include <charconv>

namespace vt::airplay_tool {

namespace {

std::optional<int> parsePort(std::string_view text) {
    int value = 0;
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr != text.data() + text.size() || value < 1 || value > 65535)
        return std::nullopt;
    return value;
}

}  // namespace

std::optional<ReceiverPorts> parseTransportHeader(std::string_view value) {
    ReceiverPorts ports;
    while (!value.empty()) {
        const size_t semi = value.find(';');
        std::string_view item = value.substr(0, semi);
        value.remove_prefix(semi == std::string_view::npos ? value.size() : semi + 1);
        while (!item.empty() && item.front() == ' ') item.remove_prefix(1);
        const size_t eq = item.find('=');
        if (eq == std::string_view::npos) continue;
        std::string_view key = item.substr(0, eq);
        int* target = key == "server_port"    ? &ports.audio
                      : key == "control_port" ? &ports.control
                      : key == "timing_port"  ? &ports.timing
                                              : nullptr;
        if (!target) continue;
        auto port = parsePort(item.substr(eq + 1));
        if (!port) return std::nullopt;
        *target = *port;
    }
    if (ports.audio == 0 || ports.control == 0) return std::nullopt;
    return ports;
}

}  // namespace vt::airplay_tool
