// What the sound server keeps about our own streams, cleared before each one
// opens and after it closes, so that a volume someone gave one of them never
// comes back on the next one and does not outlive us.
//
// PulseAudio's stream restore keeps an entry under the stream's
// module-stream-restore.id, which we give (`ownStreamKey`). It never applies
// it to our streams (they open at a volume we set) but keeps it after we
// quit: the entry is deleted.
//
// On PipeWire, WirePlumber keeps a volume per stream key (here the
// application id, again `ownStreamKey`) and puts it on the next stream of
// that key a moment after it opens; it ignores our opt-out (0.4.13 compares
// the property, a string, with a boolean). pipewire-pulse cannot delete what
// it keeps, but an entry written through pipewire-pulse's stream restore
// replaces it. WirePlumber takes only changes, and pipewire-pulse keeps the
// last entry written, so full volume written twice would change nothing the
// second time: a muted entry is written just before it.
#pragma once

#include <memory>
#include <string>

#include "platform/audio_backend.h"
#include "platform/pulse/pulse_loop.h"

namespace vt::platform::pulse {

// For one of our streams on `device` (a sink, or a monitor for the
// capture). Waits for the server's answer, so that a stream opened next
// finds the entry cleared. Not on the loop's thread.
void clearOwnStreamEntry(PulseLoop& control, const std::string& device, bool playback,
                         bool pipewire);

// `stream`, clearing the entry again once it has closed.
std::unique_ptr<Stream> clearingEntryOnClose(std::unique_ptr<Stream> stream,
                                             std::shared_ptr<PulseLoop> control,
                                             const std::string& device, bool playback,
                                             bool pipewire);

}  // namespace vt::platform::pulse
