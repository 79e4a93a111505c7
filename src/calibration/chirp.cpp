#include "calibration/chirp.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>

namespace vt::calibration {

namespace {
constexpr double kMeasurementDurationSec = 0.3;
constexpr double kMeasurementFadeSec = 0.02;
}  // namespace

Chirp::Chirp(double rate, double durationSec, double fromHz, double toHz, double fadeSec)
    : sampleRate(rate) {
    const auto n = std::max<long>(1, static_cast<long>(rate * durationSec));
    const double k = std::pow(toHz / fromHz, 1.0 / durationSec);
    const double logK = std::log(k);
    samples.resize(static_cast<size_t>(n));
    for (long i = 0; i < n; ++i) {
        const double t = static_cast<double>(i) / rate;
        samples[static_cast<size_t>(i)] = static_cast<float>(
            std::sin(2.0 * std::numbers::pi * fromHz * (std::pow(k, t) - 1.0) / logK));
    }
    const long fade = std::min(static_cast<long>(rate * fadeSec), n / 2);
    for (long i = 0; i < fade; ++i) {
        const float ramp = static_cast<float>(i) / static_cast<float>(fade);
        samples[static_cast<size_t>(i)] *= ramp;
        samples[static_cast<size_t>(n - 1 - i)] *= ramp;
    }
}

Chirp Chirp::measurementSound(double rate) {
    return Chirp(rate, kMeasurementDurationSec, kMeasurementLowHz, kMeasurementHighHz,
                 kMeasurementFadeSec);
}

std::vector<float> clickSound(double sampleRate, double durationSec) {
    const auto n = std::max<long>(0, static_cast<long>(sampleRate * durationSec));
    std::vector<float> out(static_cast<size_t>(n));
    uint64_t state = 0x9e3779b97f4a7c15ULL;
    for (long i = 0; i < n; ++i) {
        state = state * 0x5851f42d4c957f2dULL + 0x14057b7ef767814fULL;
        const float u = static_cast<float>(state >> 11) * 2.220446e-16f - 0.5f;
        out[static_cast<size_t>(i)] =
            2.0f * u * std::exp(-12.0f * static_cast<float>(i) / static_cast<float>(n));
    }
    return out;
}

}  // namespace vt::calibration
