// Translation between the server's records and ours, and the argument
// string of the capture sink's module. Pure functions.
#pragma once

#include <pulse/pulseaudio.h>

#include <map>
#include <string>

#include "platform/audio_backend.h"

namespace vt::platform::pulse {

std::map<std::string, std::string> propertiesOf(const pa_proplist* props);
SinkInfo sinkInfoOf(const pa_sink_info& info);
SinkInputInfo sinkInputInfoOf(const pa_sink_input_info& info);

// "sink_name=... rate=... channels=... format=float32le
// sink_properties=device.description='...'"; characters that could break
// out of the quoting are dropped from the name and the description.
std::string nullSinkArguments(const std::string& name, const std::string& description,
                              uint32_t rate, uint32_t channels, bool float32);

}  // namespace vt::platform::pulse
