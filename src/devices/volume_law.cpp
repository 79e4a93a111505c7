#include "devices/volume_law.h"

#include <algorithm>
#include <cmath>

namespace vt::devices {

double MacVolumeCurve::gain(double scalar) {
    if (!std::isfinite(scalar)) return 0;
    const double v = std::clamp(scalar, 0.0, 1.0);
    return v * v;
}

double MacVolumeCurve::masterGain(double scalar, bool tap, double driverGain) {
    const double g = gain(scalar);
    if (tap) return g;
    return driverGain > 0 ? g / driverGain : 1.0;
}

std::optional<double> ReportedLatency::seeded(std::optional<double> reportedMs, double currentMs,
                                              bool currentIsReported, bool measuredByPerson,
                                              double userDelayMs) {
    if (measuredByPerson || userDelayMs != 0) return std::nullopt;
    if (!reportedMs) {
        if (currentMs == 0 || !currentIsReported) return std::nullopt;
        return 0.0;
    }
    const double target = *reportedMs >= worthCorrectingMs ? *reportedMs : 0.0;
    if (target == currentMs) return std::nullopt;
    return target;
}

}  // namespace vt::devices
