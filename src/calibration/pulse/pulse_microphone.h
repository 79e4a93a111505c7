// The default source as the measurement's microphone. A sink's monitor is
// never one: both servers name a monitor the default source when nothing
// else records, and the capture sink's monitor would hear the test sound
// before any speaker played it.
#pragma once

#include "calibration/mic_capture.h"

namespace vt::calibration {

class PulseMicrophone final : public Microphone {
  public:
    // Each opening has a connection of its own, gone with the capture.
    MicOpenResult openDefault() override;
};

}  // namespace vt::calibration
