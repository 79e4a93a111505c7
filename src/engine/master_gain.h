// The gain that makes the capture sink's volume act on every output.
//
// The volume slider is heard as a square law. The capture comes from the
// sink's monitor, which already carries the sink's own (linear) volume, so
// that part is divided out again.
#pragma once

#include <algorithm>
#include <cmath>
#include <optional>

namespace vt::engine {

inline double captureMasterGain(double scalar, std::optional<double> carriedLinear) {
    double v = std::isfinite(scalar) ? std::clamp(scalar, 0.0, 1.0) : 0.0;
    double g = v * v;
    double linear = carriedLinear.value_or(1.0);
    return linear > 0 ? g / linear : 1.0;
}

}  // namespace vt::engine
