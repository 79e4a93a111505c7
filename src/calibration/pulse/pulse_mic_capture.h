// A microphone window on a record stream. The stream's thread appends each
// block, folded to mono, to a buffer made once; the main thread opens and
// closes windows. Neither waits for the other: a window is a generation
// number, the stream's thread publishes how far it has written in the
// current one, and the main thread reads only what was published.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "calibration/mic_capture.h"
#include "platform/audio_backend.h"

namespace vt::platform::pulse {
class PulseLoop;
}

namespace vt::calibration {

class PulseMicCapture final : public MicCapture {
  public:
    // The longest window kept; a measurement's window is the slowest
    // speaker's lateness (at most 4 s) and 1.5 s more.
    static constexpr double kMaxWindowSec = 10.0;

    PulseMicCapture(std::shared_ptr<platform::pulse::PulseLoop> loop, double rate);
    ~PulseMicCapture() override;
    // Starts recording `source`; false with the server's words on failure.
    bool open(const std::string& source, std::string& error);

    double sampleRate() const override { return rate_; }
    void beginWindow() override;
    MicWindow endWindow() override;
    float currentLevel() const override { return level_.load(std::memory_order_relaxed); }

  private:
    static void onBlock(void* self, const float* frames, uint32_t count, double hostSec,
                        double streamFrame);
    void append(const float* frames, uint32_t count, double hostSec, double streamFrame);

    std::shared_ptr<platform::pulse::PulseLoop> loop_;
    const double rate_;
    std::vector<float> buffer_;
    // Main thread writes: generation << 1 | collecting.
    std::atomic<uint64_t> control_{0};
    // Stream thread writes: generation << 32 | frames written in it.
    std::atomic<uint64_t> progress_{0};
    std::atomic<float> level_{0.0f};
    // The stream thread's own.
    uint64_t generation_ = 0;
    uint32_t frames_ = 0;
    double windowFrame_ = 0;  // the stream's frame that is the window's first
    // Host time of the window's first frame.
    std::atomic<double> firstHostSec_{0};
    std::unique_ptr<platform::Stream> stream_;
};

}  // namespace vt::calibration
