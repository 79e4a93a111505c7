// When a stream's bytes are heard (playback) or were played into the
// captured sink (capture), from the server's raw timing snapshots.
//
// Each snapshot says "at host time t the stream was at position p"; for a
// stream on a steady clock, t - p is a constant, and the robust average of
// the last snapshots is far steadier than any one of them (or than the
// interpolated latency, which jumps with every burst the server sends).
// Lives on the stream's loop thread: no locks, no allocation.
#pragma once

#include <sys/time.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace vt::platform::pulse {

class StreamClock {
  public:
    static constexpr size_t kWindow = 32;  // ~0.6 s of snapshots taken every 20 ms

    explicit StreamClock(double bytesPerSecond) : bytesPerSecond_(bytesPerSecond) {}

    // `hostSec` is when the stream's position `positionSec` (bytes / rate) was
    // being heard.
    void addSnapshot(double hostSec, double positionSec);
    bool valid() const { return count_ > 0; }
    // Host seconds at which the byte `position` is heard.
    double hostTimeOf(int64_t position) const {
        return static_cast<double>(position) / bytesPerSecond_ + offset_;
    }
    double offset() const { return offset_; }
    // How far the latest snapshot sits from the averaged line, in seconds.
    double lastResidual() const { return lastResidual_; }

  private:
    double bytesPerSecond_;
    std::array<double, kWindow> window_{};
    size_t count_ = 0;
    size_t next_ = 0;
    double offset_ = 0;
    double lastResidual_ = 0;
};

// CLOCK_REALTIME - CLOCK_MONOTONIC, sampled so that the two reads sit as
// close together as the machine allows. The server stamps its snapshots with
// the wall clock; this carries them onto the host clock.
double wallMinusMonotonic();
double monotonicOfWall(const timeval& wall);

}  // namespace vt::platform::pulse
