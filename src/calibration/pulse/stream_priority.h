// The microphone's and the test sound's connections run their streams as
// the engine's do: ahead of every ordinary thread, where the system allows,
// so that a busy machine neither starves the test sound nor delays the
// recording.
#pragma once

#include <memory>

namespace vt::platform::pulse {
class PulseLoop;
}

namespace vt::calibration {

void raiseStreamPriority(platform::pulse::PulseLoop& loop);

}  // namespace vt::calibration
