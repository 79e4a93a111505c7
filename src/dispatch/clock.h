// The host clock every queue, stream and time stamp in the program shares.
#pragma once

#include <cstdint>

namespace vt::dispatch {

// CLOCK_MONOTONIC in seconds.
double monotonicSeconds();
// CLOCK_MONOTONIC in nanoseconds (the core's host ticks).
uint64_t monotonicNanos();

}  // namespace vt::dispatch
