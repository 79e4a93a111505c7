#include "devices/audio_devices.h"

#include <algorithm>
#include <cmath>

#include "devices/sink_transport.h"

namespace vt::devices::AudioDevices {

namespace {

bool startsWith(const std::string& s, const char* prefix) {
    return s.rfind(prefix, 0) == 0;
}

bool visible(const platform::SinkInfo& s) {
    return !startsWith(s.name, mixerDevicePrefix);
}

}  // namespace

AudioDevice deviceOf(const platform::SinkInfo& sink) {
    AudioDevice d;
    d.id = sink.id;
    d.uid = sink.name;
    d.name = sink.description.empty() ? sink.name : sink.description;
    d.outputChannels = static_cast<int>(sink.channels);
    d.transportType = transportCode(sink);
    d.sampleRate = sink.sampleRate;
    return d;
}

std::vector<DeviceId> deviceIDs(AudioBackend& backend) {
    std::vector<DeviceId> ids;
    for (const auto& s : backend.sinks()) ids.push_back(s.id);
    return ids;
}

std::vector<DeviceId> visibleDeviceIDs(AudioBackend& backend) {
    std::vector<DeviceId> ids;
    for (const auto& s : backend.sinks())
        if (visible(s)) ids.push_back(s.id);
    return ids;
}

std::vector<AudioDevice> all(AudioBackend& backend) {
    std::vector<AudioDevice> out;
    for (const auto& s : backend.sinks())
        if (visible(s)) out.push_back(deviceOf(s));
    return out;
}

bool isCaptureDevice(const AudioDevice& device) {
    return device.uid == captureDeviceUID || device.name == captureDeviceName;
}

std::vector<AudioDevice> outputs(AudioBackend& backend) {
    std::vector<AudioDevice> out;
    for (auto& d : all(backend))
        if (d.outputChannels > 0 && !isCaptureDevice(d)) out.push_back(std::move(d));
    return out;
}

std::optional<AudioDevice> captureDevice(const std::vector<AudioDevice>& in) {
    for (const auto& d : in)
        if (d.uid == captureDeviceUID || d.name == captureDeviceName) return d;
    return std::nullopt;
}

std::optional<AudioDevice> find(AudioBackend& backend, const std::string& uid) {
    if (auto s = backend.sinkByName(uid)) return deviceOf(*s);
    return std::nullopt;
}

std::optional<AudioDevice> deviceOf(AudioBackend& backend, DeviceId id) {
    if (auto s = backend.sinkById(id)) return deviceOf(*s);
    return std::nullopt;
}

int outputChannelCount(AudioBackend& backend, DeviceId id) {
    auto s = backend.sinkById(id);
    return s ? static_cast<int>(s->channels) : 0;
}

bool hasVolume(AudioBackend& backend, DeviceId id) {
    auto s = backend.sinkById(id);
    return s && s->hasVolume;
}

std::optional<double> volume(AudioBackend& backend, DeviceId id) {
    auto s = backend.sinkById(id);
    if (!s || !s->hasVolume) return std::nullopt;
    return s->volumeScalar;
}

std::optional<double> volumeLinear(AudioBackend& backend, DeviceId id) {
    auto s = backend.sinkById(id);
    if (!s || !s->hasVolume) return std::nullopt;
    const double g = s->volumeLinear;
    if (!std::isfinite(g) || g <= 0) return 0.0;
    // The quietest step the original platform reports as sound is -63.5 dB.
    if (20.0 * std::log10(g) <= -63.5) return 0.0;
    return g;
}

bool setVolume(AudioBackend& backend, DeviceId id, double v) {
    if (!hasVolume(backend, id)) return false;
    if (!std::isfinite(v)) v = 0;
    return backend.setSinkVolume(id, std::clamp(v, 0.0, 1.0));
}

double reportedLatencyMs(AudioBackend& backend, DeviceId id) {
    auto s = backend.sinkById(id);
    if (!s || !(s->sampleRate > 0)) return 0;
    return std::max(0.0, s->latencyMs);
}

}  // namespace vt::devices::AudioDevices
