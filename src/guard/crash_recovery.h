// The first thing a launch does about the system output: a
// "pendingRestoreUID" left in the settings means the last run ended while it
// held the default sink. The key is cleared, and if that sink is still there
// it becomes the default again, with the streams left on the capture sink.
// Speakers' volumes still kept from that run are given back first.
#pragma once

#include <optional>

#include "guard/restored_output.h"
#include "platform/audio_backend.h"
#include "settings/settings.h"

namespace vt::guard {

// The sink given back (afterCrash true), or nothing if there was nothing to
// do or the sink has gone (then the guard hands the output to another).
std::optional<RestoredOutput> recoverAfterCrash(platform::AudioBackend& backend,
                                                settings::Settings& settings);

}  // namespace vt::guard
