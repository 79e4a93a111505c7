#include "devices/audio_device.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <utility>

namespace vt::devices {

namespace {

constexpr std::array<std::pair<DeviceKind, const char*>, 6> kKindNames{{
    {DeviceKind::builtin, "builtin"},
    {DeviceKind::speaker, "speaker"},
    {DeviceKind::display, "display"},
    {DeviceKind::earbuds, "earbuds"},
    {DeviceKind::headphones, "headphones"},
    {DeviceKind::interface, "interface"},
}};

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

bool contains(const std::string& haystack, const char* needle) {
    return haystack.find(needle) != std::string::npos;
}

}  // namespace

std::string rawValue(DeviceKind kind) {
    for (const auto& [k, name] : kKindNames)
        if (k == kind) return name;
    return "interface";
}

std::optional<DeviceKind> deviceKindFromRaw(const std::string& raw) {
    for (const auto& [k, name] : kKindNames)
        if (raw == name) return k;
    return std::nullopt;
}

std::string transportLabel(const std::string& code) {
    static const std::array<std::pair<const char*, const char*>, 12> table{{
        {"bltn", "Built-in"},
        {"blue", "Bluetooth"},
        {"blea", "Bluetooth"},
        {"usb ", "USB"},
        {"1394", "FireWire"},
        {"pci ", "PCI"},
        {"thun", "Thunderbolt"},
        {"hdmi", "HDMI"},
        {"dprt", "DisplayPort"},
        {"airp", "AirPlay"},
        {"grup", "Aggregate"},
        {"virt", "Virtual"},
    }};
    for (const auto& [c, label] : table)
        if (code == c) return label;
    return "Audio";
}

std::string shownTransport(const std::string& label) {
    // "Built-in", "Aggregate", "Virtual" and "Audio" are the words that would
    // be translated; the product names pass through. English is the only
    // language shipped, so all of them read as they are.
    return label;
}

std::string rateLabel(double sampleRate) {
    const double khz = sampleRate / 1000.0;
    char buf[32];
    if (std::floor(khz) == khz)
        std::snprintf(buf, sizeof buf, "%.0f kHz", khz);
    else
        std::snprintf(buf, sizeof buf, "%.1f kHz", khz);
    return buf;
}

DeviceKind kind(const std::string& transport, const std::string& name) {
    const std::string n = lower(name);
    const bool earbud = contains(n, "airpod") || contains(n, "buds") || contains(n, "earphone") ||
                        contains(n, "earbud");
    const bool headphone = contains(n, "headphone") || contains(n, "headset");

    if (transport == transport::builtIn)
        return headphone ? DeviceKind::headphones : DeviceKind::builtin;
    if (transport == transport::displayPort || transport == transport::hdmi)
        return DeviceKind::display;
    const bool wired = transport == transport::fireWire || transport == transport::pci ||
                       transport == transport::thunderbolt || transport == transport::usb;
    if (!wired) {
        // Bluetooth, AirPlay and everything else that is not a cable.
        if (earbud) return DeviceKind::earbuds;
        if (headphone) return DeviceKind::headphones;
        return DeviceKind::speaker;
    }
    if (contains(n, "display") || contains(n, "monitor")) return DeviceKind::display;
    if (earbud) return DeviceKind::earbuds;
    if (headphone) return DeviceKind::headphones;
    return DeviceKind::interface;
}

std::string AudioDevice::transportLabel() const {
    return devices::transportLabel(transportType);
}

std::string AudioDevice::shownTransport() const {
    return devices::shownTransport(transportLabel());
}

std::string AudioDevice::rateLabel() const {
    return devices::rateLabel(sampleRate);
}

std::string AudioDevice::meta() const {
    return shownTransport() + " · " + rateLabel();
}

DeviceKind AudioDevice::kind() const {
    return devices::kind(transportType, name);
}

}  // namespace vt::devices
