// Ring frames per output frame for a device or stream running at `rate`.
// Rates under 44.1 kHz read as 44.1 kHz and rates above 96 kHz as 96 kHz, so
// the interpolation tables stay within the few the core keeps.
#pragma once

#include <algorithm>

namespace vt::engine {

inline double baseRatioForRate(double rate) {
    if (!(rate > 44100.0)) return 1.08843537414966;
    return 48000.0 / std::min(rate, 96000.0);
}

}  // namespace vt::engine
