// Moving other programs' streams between sinks. Our own streams carry a
// marker and are never touched.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "platform/audio_backend.h"

namespace vt::guard {

// Sink input index -> name of the sink it was taken from.
using MovedStreams = std::map<uint32_t, std::string>;

// Moves onto `capture` the streams that play on the default sink `from` (not
// ours); returns where each moved one came from. A stream someone routed to
// another sink on purpose (a game on the TV, a call on a headset) stays, and
// so does one on a sink we play to, which would otherwise play into itself.
MovedStreams takeStreams(platform::AudioBackend& backend, const platform::SinkInfo& capture,
                         const std::optional<std::string>& from);

// Moves every stream that is not ours off the capture sinks: to the sink it
// came from if `moved` knows it and that sink is still a real output,
// otherwise to `fallback`. With no fallback, streams without a known origin
// stay where they are.
void giveStreamsBack(platform::AudioBackend& backend, const MovedStreams& moved,
                     const std::optional<std::string>& fallback);

}  // namespace vt::guard
