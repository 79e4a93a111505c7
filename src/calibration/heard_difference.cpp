#include "calibration/heard_difference.h"

namespace vt::calibration {

namespace {
constexpr LatencyRange kLocalRange{0.0, 1500.0};
constexpr LatencyRange kNetworkRange{-500.0, 1500.0};
}  // namespace

double toStore(double heardMs, const RowTiming& reference, const RowTiming& output) {
    return heardMs - (output.engineDelayMs - reference.engineDelayMs) + reference.believedMs -
           output.reportedMs;
}

LatencyRange latencyRange(bool networkOutput) {
    return networkOutput ? kNetworkRange : kLocalRange;
}

bool insideRange(double ms, LatencyRange range) {
    return ms >= range.lowMs && ms <= range.highMs;
}

}  // namespace vt::calibration
