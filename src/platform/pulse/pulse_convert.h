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

// What a mixer shows for our playback stream to a sink: "Vellatone → Living".
std::string playbackStreamName(const SinkInfo& sink);

// The properties of one of our streams, on `device`: its shown name, our
// marker, and the opt-outs from both servers' stream restore, so that nothing
// done to one of our streams is stored and handed to another or outlives us:
// WirePlumber's state.restore-props and state.restore-target, and for
// PulseAudio's module-stream-restore a key of the stream's own (its volume is
// always given at connect and its sink fixed, so nothing stored is applied),
// which is also its application id, the key pipewire-pulse restores by.
// The caller frees the list.
pa_proplist* ownStreamProperties(const std::string& device, const std::string& shownName);
// What the servers keep our stream on `device` under (see own_stream_entries.h).
std::string ownStreamKey(const std::string& device);

}  // namespace vt::platform::pulse
