// When a stream's bytes are heard (playback) or were played into the
// captured sink (capture), from the server's raw timing snapshots.
//
// Each snapshot says "at host time t the stream was at position p". The
// server reads the position on its audio thread and the wall clock
// afterwards on its main thread, so a snapshot's time is never early but
// often late: by tens of microseconds usually, by milliseconds when the
// machine is busy. And a sink's clock is not the host's: even a null sink
// drifts by a hundred ppm or more against CLOCK_MONOTONIC, because it paces
// itself in whole microseconds.
//
// So the clock follows the lower edge of the snapshots: it splits the last
// four seconds or so into groups of 16, takes the mean of the earliest few of
// each group, and fits a line through those points (offset and drift). Four
// seconds, not one: each group point scatters by some tens of microseconds on
// a busy machine, and a line through only four of them wandered by 0.1 ms and
// more, which every output on that clock then followed; a sink's drift itself
// stays put for far longer than that. The
// interpolated latency, by contrast, jumps with every burst the server sends.
// Lives on the stream's loop thread: no locks, no allocation.
#pragma once

#include <sys/time.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace vt::platform::pulse {

class StreamClock {
  public:
    static constexpr size_t kGroup = 16;        // snapshots per group (~0.3 s at 20 ms)
    static constexpr size_t kGroups = 12;       // whole groups the line is drawn through
    static constexpr size_t kEarliest = 4;      // snapshots of a group that make its point
    static constexpr double kStepSec = 0.001;   // a jump beyond this starts the line afresh
    static constexpr size_t kLaterGroups = 6;   // whole groups that must agree on a later line
    static constexpr double kLateSec = 0.0001;  // a group point this far above the line is late
    static constexpr double kMaxDrift = 0.002;  // 2000 ppm: anything more is noise

    explicit StreamClock(double bytesPerSecond) : bytesPerSecond_(bytesPerSecond) {}

    // `hostSec` is when the stream's position `positionSec` (bytes / rate) was
    // being heard.
    void addSnapshot(double hostSec, double positionSec);
    bool valid() const { return valid_; }
    // Host seconds at which the byte `position` is heard.
    double hostTimeOf(int64_t position) const {
        const double p = static_cast<double>(position) / bytesPerSecond_;
        return p + intercept_ + slope_ * (p - pivot_);
    }
    // Host time minus stream time at the newest snapshot, and the drift.
    double offset() const { return intercept_ + slope_ * (lastPosition_ - pivot_); }
    double drift() const { return slope_; }

  private:
    struct Point {
        double position = 0;
        double offset = 0;
    };
    static constexpr size_t kCapacity = kGroup * (kGroups + 1);

    void refit();
    // The point of group `g`, from its earliest snapshots; false with fewer than `needed`.
    bool groupPoint(uint64_t g, size_t needed, Point& out) const;
    static void fit(const Point* pts, size_t n, double& intercept, double& slope, double& pivot);
    // The line through the points that were answered on time.
    static void fitOnTime(const Point* pts, size_t n, double& intercept, double& slope,
                          double& pivot);
    // The lowest line under all points; false if none is within kMaxDrift.
    static bool lowerEdge(const Point* pts, size_t n, double& intercept, double& slope,
                          double& pivot);

    double bytesPerSecond_;
    std::array<Point, kCapacity> samples_{};
    uint64_t total_ = 0;  // snapshots ever added
    uint64_t start_ = 0;  // first snapshot still in use
    bool valid_ = false;
    size_t lateGroups_ = 0;  // newest groups in a row that sat well above the line
    double intercept_ = 0;   // offset at the pivot position
    double slope_ = 0;
    double pivot_ = 0;
    double lastPosition_ = 0;
};

// CLOCK_REALTIME - CLOCK_MONOTONIC, sampled so that the two reads sit as
// close together as the machine allows. The server stamps its snapshots with
// the wall clock; this carries them onto the host clock.
double wallMinusMonotonic();
double monotonicOfWall(const timeval& wall);

}  // namespace vt::platform::pulse
