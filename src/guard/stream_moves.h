// Moving other programs' streams between sinks. Our own streams carry a
// marker and are never touched.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "platform/audio_backend.h"

namespace vt::guard {

// Sink input index -> name of the sink it was taken from.
using MovedStreams = std::map<uint32_t, std::string>;

// Moves every stream that is not ours and not already on `capture` onto it;
// returns where each moved one came from.
MovedStreams takeStreams(platform::AudioBackend& backend, const platform::SinkInfo& capture);

// Moves every stream that is not ours off the capture sinks: to the sink it
// came from if `moved` knows it and that sink is still a real output,
// otherwise to `fallback`. With no fallback, streams without a known origin
// stay where they are.
void giveStreamsBack(platform::AudioBackend& backend, const MovedStreams& moved,
                     const std::optional<std::string>& fallback);

}  // namespace vt::guard
