#include "platform/pulse/stream_clock.h"

#include <time.h>

#include <algorithm>

namespace vt::platform::pulse {

void StreamClock::addSnapshot(double hostSec, double positionSec) {
    const double sample = hostSec - positionSec;
    lastResidual_ = count_ ? sample - offset_ : 0.0;
    window_[next_] = sample;
    next_ = (next_ + 1) % kWindow;
    if (count_ < kWindow) ++count_;

    // Mean of the middle half: as robust as the median against the odd late
    // answer, with finer resolution than any single snapshot.
    std::array<double, kWindow> sorted;
    std::copy_n(window_.begin(), count_, sorted.begin());
    std::sort(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(count_));
    size_t lo = count_ / 4, hi = count_ - count_ / 4;
    double sum = 0;
    for (size_t i = lo; i < hi; ++i) sum += sorted[i];
    offset_ = sum / static_cast<double>(hi - lo);
}

namespace {

double seconds(const timespec& ts) {
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

}  // namespace

double wallMinusMonotonic() {
    double best = 0, bestSpan = 1e9;
    for (int i = 0; i < 3; ++i) {
        timespec a{}, w{}, b{};
        clock_gettime(CLOCK_MONOTONIC, &a);
        clock_gettime(CLOCK_REALTIME, &w);
        clock_gettime(CLOCK_MONOTONIC, &b);
        double span = seconds(b) - seconds(a);
        if (span < bestSpan) {
            bestSpan = span;
            best = seconds(w) - (seconds(a) + seconds(b)) / 2;
        }
    }
    return best;
}

double monotonicOfWall(const timeval& wall) {
    double w = static_cast<double>(wall.tv_sec) + static_cast<double>(wall.tv_usec) * 1e-6;
    return w - wallMinusMonotonic();
}

}  // namespace vt::platform::pulse
