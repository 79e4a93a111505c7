#include "devices/sink_transport.h"

#include <algorithm>
#include <cctype>

#include "devices/audio_device.h"

namespace vt::devices {

namespace {

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

std::string property(const platform::SinkInfo& sink, const char* key) {
    auto it = sink.properties.find(key);
    return it == sink.properties.end() ? std::string() : lower(it->second);
}

bool has(const std::string& s, const char* part) {
    return s.find(part) != std::string::npos;
}

}  // namespace

std::string transportCode(const platform::SinkInfo& sink) {
    const std::string driver = lower(sink.driver);
    const std::string factory = property(sink, "factory.name");  // PipeWire
    const std::string api = property(sink, "device.api");
    const std::string bus = property(sink, "device.bus");
    const std::string cls = property(sink, "device.class");
    const std::string form = property(sink, "device.form_factor");
    const std::string where = lower(sink.activePort) + " " + lower(sink.activeProfile) + " " +
                              property(sink, "device.profile.name");

    // Sinks made by modules rather than by hardware first: their properties
    // may name the hardware underneath them.
    if (has(driver, "combine")) return transport::aggregate;
    if (has(driver, "raop") || api == "raop" || has(factory, "raop")) return transport::airPlay;
    if (has(driver, "null-sink") || has(driver, "virtual") || has(driver, "remap") ||
        has(driver, "loopback") || has(driver, "ladspa") || has(driver, "equalizer") ||
        has(factory, "null-audio-sink") || cls == "abstract" || cls == "filter")
        return transport::virtualDevice;
    if (bus == "bluetooth" || api.rfind("bluez", 0) == 0) return transport::bluetooth;
    if (has(where, "hdmi") || has(where, "displayport") || has(where, "iec958-hdmi"))
        return transport::hdmi;
    if (bus == "usb") return transport::usb;
    if (form == "internal" || bus == "pci" || bus == "isa" || has(where, "analog") ||
        has(where, "speaker") || has(where, "headphone"))
        return transport::builtIn;
    return transport::unknown;
}

}  // namespace vt::devices
