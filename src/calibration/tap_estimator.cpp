#include "calibration/tap_estimator.h"

#include <algorithm>
#include <cmath>

namespace vt::calibration {

namespace {

std::optional<double> median(std::vector<double> values) {
    if (values.empty()) return std::nullopt;
    std::sort(values.begin(), values.end());
    const size_t mid = values.size() / 2;
    if (values.size() % 2 == 1) return values[mid];
    return (values[mid - 1] + values[mid]) / 2.0;
}

}  // namespace

void TapEstimator::add(double clickAt, double tappedAt) {
    const double offsetMs = (tappedAt - clickAt) * 1000.0;
    if (offsetMs >= 0 && offsetMs <= latestTapMs) offsetsMs_.push_back(offsetMs);
}

std::optional<double> TapEstimator::medianMs() const {
    return median(offsetsMs_);
}

std::optional<double> TapEstimator::spreadMs() const {
    const auto centre = medianMs();
    if (!centre) return std::nullopt;
    std::vector<double> deviations;
    deviations.reserve(offsetsMs_.size());
    for (double o : offsetsMs_) deviations.push_back(std::abs(o - *centre));
    return median(std::move(deviations));
}

bool TapEstimator::settled(int minimumTaps) const {
    const auto spread = spreadMs();
    return count() >= minimumTaps && spread && *spread <= settledSpreadMs;
}

std::optional<double> TapEstimator::latencyMs(const TapEstimator& reference,
                                              const TapEstimator& output) {
    const auto r = reference.medianMs();
    const auto o = output.medianMs();
    if (!r || !o) return std::nullopt;
    return *o - *r;
}

}  // namespace vt::calibration
