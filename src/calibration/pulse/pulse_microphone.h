// The default source as the measurement's microphone. A sink's monitor is
// never one: both servers name a monitor the default source when nothing
// else records, and the capture sink's monitor would hear the test sound
// before any speaker played it.
#pragma once

#include "calibration/mic_capture.h"
#include "calibration/pulse/open_off_main.h"

namespace vt::calibration {

class PulseMicrophone final : public Microphone {
  public:
    explicit PulseMicrophone(dispatch::MainQueue& main) : opener_(main) {}
    // Each opening has a connection of its own, gone with the capture.
    void openDefault(std::function<void(MicOpenResult)> done) override;

  private:
    OpenOffMain opener_;
};

}  // namespace vt::calibration
