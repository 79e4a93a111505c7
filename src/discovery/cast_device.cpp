#include "discovery/cast_device.h"

namespace vt::discovery {

std::optional<CastDevice> CastDevice::from(const std::string& instanceName, const TxtRecord& txt) {
    auto field = [&](const char* key) -> std::string {
        auto it = txt.find(key);
        return it == txt.end() ? std::string() : it->second;
    };
    CastDevice device;
    device.id = field("id");
    if (device.id.empty()) return std::nullopt;
    device.name = field("fn");
    if (device.name.empty()) device.name = instanceName;
    device.model = field("md");
    const std::string playing = field("rs");
    if (field("st") == "1" && !playing.empty()) device.busyWith = playing;
    return device;
}

}  // namespace vt::discovery
