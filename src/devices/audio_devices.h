// Reads and writes on the sound server's devices: which exist, which one is
// the capture device, which can be outputs, their volume and reported
// latency. Stateless; a failed read gives the empty value, nothing throws.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "devices/audio_device.h"
#include "platform/audio_backend.h"

namespace vt::devices::AudioDevices {

using platform::AudioBackend;
using platform::DeviceId;

std::vector<DeviceId> deviceIDs(AudioBackend& backend);
// Without the private mixer devices (UID starting with the mixer prefix).
std::vector<DeviceId> visibleDeviceIDs(AudioBackend& backend);
// Every visible device.
std::vector<AudioDevice> all(AudioBackend& backend);
// Devices that can be outputs: not the capture device, with output channels.
std::vector<AudioDevice> outputs(AudioBackend& backend);
// The device with the capture sink's name or shown name.
std::optional<AudioDevice> captureDevice(const std::vector<AudioDevice>& in);
bool isCaptureDevice(const AudioDevice& device);
std::optional<AudioDevice> find(AudioBackend& backend, const std::string& uid);
std::optional<AudioDevice> deviceOf(AudioBackend& backend, DeviceId id);

int outputChannelCount(AudioBackend& backend, DeviceId id);
// A sink's volume can be set (every sink's can, in hardware or software).
bool hasVolume(AudioBackend& backend, DeviceId id);
// Slider position 0..1, or nothing when there is no settable volume.
std::optional<double> volume(AudioBackend& backend, DeviceId id);
// The same as a linear gain; 0 at or below -63.5 dB.
std::optional<double> volumeLinear(AudioBackend& backend, DeviceId id);
bool setVolume(AudioBackend& backend, DeviceId id, double v);
// The latency the server reports for the sink; 0 when its rate is unknown.
double reportedLatencyMs(AudioBackend& backend, DeviceId id);

AudioDevice deviceOf(const platform::SinkInfo& sink);

}  // namespace vt::devices::AudioDevices
