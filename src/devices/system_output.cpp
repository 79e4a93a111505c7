#include "devices/system_output.h"

namespace vt::devices::SystemOutput {

std::optional<platform::DeviceId> defaultOutput(platform::AudioBackend& backend) {
    auto name = backend.defaultSinkName();
    if (!name) return std::nullopt;
    auto sink = backend.sinkByName(*name);
    if (!sink || sink->id == platform::kNoDevice) return std::nullopt;
    return sink->id;
}

std::optional<platform::DeviceId> systemOutput(platform::AudioBackend& backend) {
    return defaultOutput(backend);
}

bool setDefaultOutput(platform::AudioBackend& backend, platform::DeviceId id) {
    auto sink = backend.sinkById(id);
    return sink && backend.setDefaultSink(sink->name);
}

bool setSystemOutput(platform::AudioBackend& backend, platform::DeviceId id) {
    return setDefaultOutput(backend, id);
}

}  // namespace vt::devices::SystemOutput
