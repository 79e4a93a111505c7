// A straight line through a recording's timing snapshots. A virtual sink need
// not keep its nominal rate against the host clock (a null sink at 44.1 kHz
// drifts by a couple of hundred parts per million), so the meter fits when
// each recorded frame played rather than assuming the nominal rate.
#pragma once

#include <cstddef>
#include <vector>

namespace vt::syncmeter {

struct ClockPoint {
    double positionSec = 0;  // stream position, frames / nominal rate
    double startSec = 0;     // snapshot time minus that position
};

struct ClockLine {
    double startSec = 0;  // when position 0 played
    double slope = 0;     // seconds gained per nominal second: played = start + pos * (1 + slope)
    double spreadMs = 0;  // interquartile range of the residuals
    size_t used = 0;
};

// Least squares, then again without the points more than three
// interquartile ranges from the first line. Needs at least two points.
ClockLine fitClock(const std::vector<ClockPoint>& points);

}  // namespace vt::syncmeter
