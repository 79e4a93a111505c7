// Turns what the user asks of each output (an offset of up to five seconds
// either way) and how late each output is heard into the delays the engine
// can apply, which can only hold audio back and are therefore never negative.
// Pure functions on values: no state, callable from any thread.
#pragma once

#include <span>
#include <vector>

#include "delay/playback_mode.h"

namespace vt::delay::DelayPlan {

struct Range {
    double lower;
    double upper;
};
// The offsets a user may set, in ms.
inline constexpr Range range{-5000.0, 5000.0};
// A row joins the fast group within this many ms of the quickest row...
inline constexpr double fastJoinMs = 50.0;
// ...and leaves it only beyond this many, so that a wobbling measurement
// does not make it flip back and forth.
inline constexpr double fastLeaveMs = 80.0;

struct GroupPlan {
    std::vector<double> delays;  // ms, one per row
    std::vector<bool> fast;      // one per row

    bool operator==(const GroupPlan&) const = default;
};

// Delays that make every row heard at its offset from the counted row that
// would otherwise be heard last; rows not counted are computed the same way
// but cannot set the base, and never go below 0. When no row is counted all
// of them set the base. Offsets and latencies have one entry per row; a
// missing latency counts as 0.
std::vector<double> engineDelays(std::span<const double> offsets, std::span<const double> latencies,
                                 const std::vector<bool>& counted);
std::vector<double> engineDelays(std::span<const double> offsets,
                                 std::span<const double> latencies);
std::vector<double> engineDelays(std::span<const double> offsets);

// The delays and the fast group for one set of rows. wasFast is the last
// plan's fast flags; rows beyond its end were not fast.
GroupPlan plan(std::span<const double> offsets, std::span<const double> latencies,
               const std::vector<bool>& counted, PlaybackMode mode, bool syncSlow,
               const std::vector<bool>& wasFast);

// When each row is heard: its delay plus its latency.
std::vector<double> heardMs(std::span<const double> delays, std::span<const double> latencies);

// Summaries for display over the offsets of the rows that have an output:
// the smallest, and the whole ms between the smallest and the largest; 0 when
// there are none.
double earliestDelayMs(std::span<const double> offsetsOfRowsWithOutput);
long spreadMs(std::span<const double> offsetsOfRowsWithOutput);

}  // namespace vt::delay::DelayPlan
