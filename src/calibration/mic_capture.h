// The microphone as a measurement sees it: a recording of the sound server's
// default source, taken in windows. Each window knows the host time of its
// first frame, stamped the way the engine's capture stamps its blocks, so a
// sweep's arrival can be placed on the same clock as the moment it was played.
//
// The sound server's implementation lives beside the other streams of the
// backend; unit tests use a scripted fake.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vt::calibration {

// One window of mono samples at the capture's rate.
struct MicWindow {
    std::vector<float> samples;
    // CLOCK_MONOTONIC seconds at which samples[0] reached the source (0 when
    // the stream could not say).
    double firstFrameHostSec = 0;
    double sampleRate = 0;
};

class MicCapture {
  public:
    virtual ~MicCapture() = default;
    // The rate the recording really runs at.
    virtual double sampleRate() const = 0;
    // Main thread: drops whatever was kept and starts keeping frames.
    virtual void beginWindow() = 0;
    // Main thread: stops keeping frames and hands over what came since
    // beginWindow (folded to mono by averaging the channels).
    virtual MicWindow endWindow() = 0;
    // A recent peak level 0..1 for display; never used for deciding.
    virtual float currentLevel() const = 0;
};

enum class MicOpenError {
    none,
    noInputDevice,  // no default source, or only a sink's monitor
    openFailed,     // the source is there but the stream did not open
};

struct MicOpenResult {
    std::unique_ptr<MicCapture> mic;  // recording from the moment it is returned
    MicOpenError error = MicOpenError::none;
    std::string detail;  // the server's own words, for the log only
};

// Opens the default input without waiting for the server: `done` runs on
// the main queue with the outcome, however long the server takes (a caller
// that cannot wait that long stops listening for it).
class Microphone {
  public:
    virtual ~Microphone() = default;
    virtual void openDefault(std::function<void(MicOpenResult)> done) = 0;
};

}  // namespace vt::calibration
