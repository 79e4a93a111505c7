// One clock for every network timestamp: CLOCK_MONOTONIC, the clock the audio
// engine stamps its blocks with, so wire times and render times compare directly.
#pragma once

#include <cstdint>
#include <functional>

namespace vt::net {

// Microseconds, truncated towards zero.
int64_t monotonicUs();
// Seconds as a double, for deadlines and liveness.
double monotonicSeconds();

// Lets tests replace the clock that deadlines are measured against.
using SecondsClock = std::function<double()>;

}  // namespace vt::net
