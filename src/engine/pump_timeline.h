// The ideal clock of a network slot. A sender's pump thread wakes roughly
// every 10 ms; rather than trusting each wake-up time, the slot's audio is
// laid on a line that advances by exactly the frames rendered, and only a
// stall (or rush) of more than half a second starts a new line.
#pragma once

#include <cstdint>
#include <optional>

namespace vt::engine {

struct PumpTimeline {
    static constexpr double kMaxSlipSeconds = 0.5;

    double rate = 44100;
    std::optional<double> anchor;  // host seconds of the line's first frame
    double rendered = 0;           // frames laid on the line so far

    void reset(double newRate) {
        rate = newRate;
        anchor.reset();
        rendered = 0;
    }

    // The presentation time of a block of `frames` asked for at `now`.
    double advance(double now, uint32_t frames) {
        if (anchor && rate > 0) {
            double present = *anchor + rendered / rate;
            if (present >= now - kMaxSlipSeconds && present <= now + kMaxSlipSeconds) {
                rendered += frames;
                return present;
            }
        }
        anchor = now;
        rendered = frames;
        return now;
    }
};

}  // namespace vt::engine
