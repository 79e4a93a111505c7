// The computer's output: the server's default sink. There is one default, so
// the "system output" is the same sink.
#pragma once

#include <optional>

#include "platform/audio_backend.h"

namespace vt::devices::SystemOutput {

std::optional<platform::DeviceId> defaultOutput(platform::AudioBackend& backend);
std::optional<platform::DeviceId> systemOutput(platform::AudioBackend& backend);
bool setDefaultOutput(platform::AudioBackend& backend, platform::DeviceId id);
bool setSystemOutput(platform::AudioBackend& backend, platform::DeviceId id);

}  // namespace vt::devices::SystemOutput
