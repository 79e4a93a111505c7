// PulseAudio's null sink, while nothing playing into it asks for a latency,
// renders its longest latency (two seconds) ahead, and a latency asked for
// later does not take that back: the sink rewinds only as far as the new
// latency, and a record stream on its monitor asks for nothing the sink
// heeds. A monitor hands on what was played, so whatever a program started
// playing into our capture sink while it was idle (just made, or between two
// songs) reached our recording two seconds late. A silent stream of ours
// into the sink keeps a short latency asked for all along, and one suspend
// and resume, while nothing else plays there, starts the sink's clock again
// at the present under it. pipewire-pulse keeps no such lead.
#pragma once

#include <memory>
#include <string>

#include "platform/audio_backend.h"
#include "platform/pulse/pulse_loop.h"

namespace vt::platform::pulse {

// The silent stream into the sink `sinkName` (index `sinkIndex`), on the
// stream loop `streams`; with `restartClock`, the sink is then suspended and
// resumed through `control`. Null when the stream cannot be opened.
std::unique_ptr<Stream> holdShortSinkLead(std::shared_ptr<PulseLoop> streams, PulseLoop& control,
                                          uint32_t sinkIndex, const std::string& sinkName,
                                          uint32_t rate, bool restartClock);

// `capture` with `companion` beside it: the capture's rate, both closed
// together, the companion first.
std::unique_ptr<Stream> withCompanion(std::unique_ptr<Stream> capture,
                                      std::unique_ptr<Stream> companion);

}  // namespace vt::platform::pulse
