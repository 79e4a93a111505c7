// Stand-ins for a program given no microphone or test-sound player: every
// measurement that needs one fails with its own sentence.
#pragma once

#include "calibration/mic_capture.h"
#include "calibration/tone_player.h"

namespace vt::calibration {

class NoMicrophone final : public Microphone {
  public:
    void openDefault(std::function<void(MicOpenResult)> done) override {
        done({nullptr, MicOpenError::noInputDevice, "no microphone given"});
    }
};

class NoToneOutput final : public ToneOutput {
  public:
    void open(double, std::function<void(TonePlayerOpenResult)> done) override {
        done({nullptr, "no test-sound player given"});
    }
};

}  // namespace vt::calibration
