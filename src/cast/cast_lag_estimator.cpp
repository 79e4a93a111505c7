#include "cast/cast_lag_estimator.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace vt::cast {
namespace {

// The upper middle element for an even count.
std::optional<double> median(const std::deque<double>& values) {
    if (values.empty()) return std::nullopt;
    std::vector<double> sorted(values.begin(), values.end());
    std::sort(sorted.begin(), sorted.end());
    return sorted[sorted.size() / 2];
}

}  // namespace

bool CastLagEstimator::noteRTT(double seconds) {
    if (seconds < 0) return false;
    const auto before = median(rtts_);
    rtts_.push_back(seconds);
    if (rtts_.size() > kMaxRoundTrips) rtts_.pop_front();
    if (!before || rtts_.size() < kMinRoundTripsToJudge) return true;
    return seconds <= kRoundTripFactor * std::max(*before, kRoundTripFloorSeconds);
}

void CastLagEstimator::add(double time, double media) {
    samples_.push_back({time, media});
    if (samples_.size() > kMaxSamples) samples_.pop_front();
}

std::optional<double> CastLagEstimator::lag(double streamStart, double rate) const {
    if (samples_.size() < kMinSamplesForLag) return std::nullopt;
    const double newest = samples_.back().time;
    std::vector<double> lags;
    lags.reserve(samples_.size());
    for (const auto& s : samples_)
        lags.push_back((s.time - streamStart) - s.media + (1.0 - rate) * (newest - s.time));
    std::sort(lags.begin(), lags.end());
    const size_t n = lags.size();
    const auto index = static_cast<size_t>(std::lround(static_cast<double>(n - 1) * 58.0 / 59.0));
    return lags[std::min(index, n - 1)];
}

std::optional<double> CastLagEstimator::driftPPM() const {
    if (samples_.size() < kMinSamplesForLag) return std::nullopt;
    double meanT = 0, meanM = 0;
    for (const auto& s : samples_) {
        meanT += s.time;
        meanM += s.media;
    }
    meanT /= static_cast<double>(samples_.size());
    meanM /= static_cast<double>(samples_.size());
    double stt = 0, stm = 0;
    for (const auto& s : samples_) {
        stt += (s.time - meanT) * (s.time - meanT);
        stm += (s.time - meanT) * (s.media - meanM);
    }
    if (!(stt > 1e-6)) return std::nullopt;
    return (stm / stt - 1.0) * 1e6;
}

std::optional<double> CastLagEstimator::medianRTT() const {
    return median(rtts_);
}

}  // namespace vt::cast
