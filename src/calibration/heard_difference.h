// From what was heard to what a row stores. A measurement hears the output
// against the reference through the delays the engine applied at that
// moment, and through whatever the reference's latency is believed to be;
// the row stores only what its own report misses.
#pragma once

#include "calibration/narrowing_search.h"

namespace vt::calibration {

// One row's timing, noted as its test sound begins.
struct RowTiming {
    double engineDelayMs = 0;  // the delay the engine was applying
    double believedMs = 0;     // all the latency the delays allow for
    double reportedMs = 0;     // of that, what the row's measurement does not supply
};

// `heardMs`: the output's sound minus the reference's.
double toStore(double heardMs, const RowTiming& reference, const RowTiming& output);

// A local speaker cannot play before it is given the sound; a network one may
// be ahead of what it reports.
LatencyRange latencyRange(bool networkOutput);
bool insideRange(double ms, LatencyRange range);

}  // namespace vt::calibration
