// The one clock every remote timestamp is on: the host's monotonic clock, the
// same one the audio engine stamps its blocks with.
#pragma once

#include <cstdint>

namespace vt::remote {

struct RemoteClock {
    // Monotonic seconds.
    static double now();
    // A host tick count (nanoseconds) on the same scale as now().
    static double seconds(uint64_t hostTicks) { return static_cast<double>(hostTicks) * 1e-9; }
};

}  // namespace vt::remote
