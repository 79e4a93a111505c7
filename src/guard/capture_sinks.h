// Which sink is the capture sink and
// which are real outputs, for taking and giving back the default sink.
#pragma once

#include <optional>
#include <vector>

#include "platform/audio_backend.h"

namespace vt::guard {

// Our sink, by name or shown name.
std::optional<platform::SinkInfo> findCaptureSink(const std::vector<platform::SinkInfo>& sinks);
bool isCaptureSink(const platform::SinkInfo& sink);
// Sinks that can play to a person: channels, not a capture sink, not one of
// the mixer's private sinks.
std::vector<platform::SinkInfo> realOutputs(const std::vector<platform::SinkInfo>& sinks);
// The sink of that name if it is present and a real output.
std::optional<platform::SinkInfo> presentRealOutput(const std::vector<platform::SinkInfo>& sinks,
                                                    const std::optional<std::string>& name);

}  // namespace vt::guard
