#include "guard/own_stream_volumes.h"

#include <cmath>
#include <set>

namespace vt::guard {

namespace {
// The server keeps volumes in its own steps of about 1.5e-5.
constexpr double kFullWithin = 1e-3;
}  // namespace

void OwnStreamVolumes::check(double now) {
    std::set<uint32_t> present;
    for (const platform::SinkInputInfo& in : backend_.sinkInputs()) {
        if (!in.ours) continue;
        present.insert(in.index);
        Seen& seen = seen_.try_emplace(in.index, Seen{now, false}).first->second;
        if (seen.settled) continue;
        if (now - seen.since > kHoldSeconds) {
            seen.settled = true;
        } else if (std::fabs(in.volumeLinear - 1.0) > kFullWithin) {
            backend_.setSinkInputVolume(in.index, 1.0);
            seen.settled = true;
        }
    }
    std::erase_if(seen_, [&](const auto& entry) { return !present.contains(entry.first); });
}

}  // namespace vt::guard
