#include "dispatch/clock.h"

#include <time.h>

namespace vt::dispatch {

uint64_t monotonicNanos() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

double monotonicSeconds() {
    return static_cast<double>(monotonicNanos()) * 1e-9;
}

}  // namespace vt::dispatch
