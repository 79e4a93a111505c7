// Our playback and record streams on the sound server. Each one feeds the
// core's device callback from the stream loop's thread with the host time of
// its block, worked out from raw timing snapshots (see StreamClock).
#pragma once

#include <memory>
#include <string>

#include "platform/audio_backend.h"
#include "platform/pulse/pulse_loop.h"

namespace vt::platform::pulse {

// `shownName` is what mixers show for the stream ("Vellatone → Living").
StreamResult openPlaybackStream(std::shared_ptr<PulseLoop> loop, const std::string& sinkName,
                                const std::string& shownName, uint32_t rate,
                                PlaybackCallback callback, void* clientData);
StreamResult openRecordStream(std::shared_ptr<PulseLoop> loop, const std::string& sourceName,
                              uint32_t rate, CaptureCallback callback, void* clientData);

}  // namespace vt::platform::pulse
