#include "guard/capture_sinks.h"

#include "devices/audio_devices.h"

namespace vt::guard {

using platform::SinkInfo;
namespace AudioDevices = devices::AudioDevices;

// The rules themselves are the device layer's; these only keep the sink
// records the restorer needs (ids, volumes) alongside them.

std::optional<SinkInfo> findCaptureSink(const std::vector<SinkInfo>& sinks) {
    std::vector<devices::AudioDevice> all;
    for (const SinkInfo& s : sinks) all.push_back(AudioDevices::deviceOf(s));
    std::optional<devices::AudioDevice> capture = AudioDevices::captureDevice(all);
    if (!capture) return std::nullopt;
    for (const SinkInfo& s : sinks)
        if (s.name == capture->uid) return s;
    return std::nullopt;
}

bool isCaptureSink(const SinkInfo& sink) {
    return AudioDevices::isCaptureDevice(AudioDevices::deviceOf(sink));
}

namespace {
// The mixer's private sinks are nobody's speakers.
bool isRealOutput(const SinkInfo& s) {
    return s.channels > 0 && !isCaptureSink(s) && s.name.rfind(devices::mixerDevicePrefix, 0) != 0;
}
}  // namespace

std::vector<SinkInfo> realOutputs(const std::vector<SinkInfo>& sinks) {
    std::vector<SinkInfo> out;
    for (const SinkInfo& s : sinks)
        if (isRealOutput(s)) out.push_back(s);
    return out;
}

std::optional<SinkInfo> presentRealOutput(const std::vector<SinkInfo>& sinks,
                                          const std::optional<std::string>& name) {
    if (!name) return std::nullopt;
    for (const SinkInfo& s : sinks)
        if (s.name == *name) return isRealOutput(s) ? std::optional(s) : std::nullopt;
    return std::nullopt;
}

}  // namespace vt::guard
