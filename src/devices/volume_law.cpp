#include "devices/volume_law.h"

#include <algorithm>
#include <cmath>

namespace vt::devices {

double SystemVolume::engineGain(bool tap, double linear) {
    if (!tap) return 1.0;
    return std::isfinite(linear) ? std::clamp(linear, 0.0, 1.0) : 0.0;
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
