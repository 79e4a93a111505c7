#include "spectrum/spectrum_analyser.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>

namespace vt::spectrum {

namespace {

constexpr float binHz = 23.4375f;  // 48 kHz over 2048 points
constexpr float lowestHz = 40.0f;
constexpr float spanRatio = 400.0f;  // 40 Hz to 16 kHz
constexpr int bassBands = 6;
constexpr float kickGain = 6.0f;
constexpr float peakGravity = 1.6f;
constexpr float floorPower = 1e-9f;
constexpr float inverseFullScale = 9.536743e-7f;

// The levels were tuned against Accelerate's conventions, and these two keep
// them. Its normalised Hann window is sqrt(8/3) * 0.5 * (1 - cos(2 pi n / N)):
// periodic, with a mean square of 1. Its packed real transform returns twice
// the true DFT, so its squared magnitudes are 4 |X[k]|^2, and bin 0 carries
// the squares of both DC and Nyquist. FFTW returns the true DFT, so the power
// is scaled by 4 here. A full-scale sine centred on bin k then gives
// 4 * (N/2 * sqrt(2/3))^2 = (2/3) N^2 at k and a quarter of that at each
// neighbour, N^2 in all: 4 * fullScale. A band of up to four bins around it
// reads at least 0 dB against full scale, which is the top of the range.
constexpr float transformScale = 4.0f;

float hannNormalised(int n) {
    const double norm = std::sqrt(8.0 / 3.0);
    return static_cast<float>(
        norm * 0.5 * (1.0 - std::cos(2.0 * std::numbers::pi * n / SpectrumAnalyser::size)));
}

// One-pole step for a frame of dt seconds.
float coefficient(double dt, double timeConstant) {
    return static_cast<float>(1.0 - std::exp(dt / -timeConstant));
}

float smooth(float value, float target, float attack, float release) {
    return value + (target - value) * (value < target ? attack : release);
}

int checkedBands(int bands) {
    if (bands < 1 || bands > SpectrumAnalyser::bins)
        throw std::invalid_argument("band count out of range");
    return bands;
}

}  // namespace

std::vector<int> SpectrumAnalyser::bandEdges(int bands) {
    bands = checkedBands(bands);
    std::vector<int> edges(size_t(bands) + 1);
    // Low bands are narrower than a bin; each still gets a bin of its own.
    for (int i = 0; i <= bands; ++i) {
        const float x = std::pow(spanRatio, static_cast<float>(i) / static_cast<float>(bands)) *
                        lowestHz / binHz;
        int edge = std::min(static_cast<int>(x), bins - 1);
        edge = std::max(edge, i == 0 ? 0 : edges[size_t(i) - 1] + 1);
        edges[size_t(i)] = edge;
    }
    return edges;
}

SpectrumAnalyser::SpectrumAnalyser(int bands)
    : bands_(checkedBands(bands)),
      fft_(size),
      window_(size),
      power_(bins),
      edges_(bandEdges(bands_)),
      levels_(bands),
      peaks_(bands),
      peakFall_(bands) {
    for (int n = 0; n < size; ++n) window_[n] = hannNormalised(n);
}

void SpectrumAnalyser::analyse(std::span<const float> samples, double dt) {
    if (!(dt > 0.0) || !std::isfinite(dt)) dt = 0.0;

    std::span<float> in = fft_.input();
    const std::size_t count = std::min(samples.size(), in.size());
    for (std::size_t n = 0; n < count; ++n) {
        const float s = samples[n];
        in[n] = std::isfinite(s) ? s * window_[n] : 0.0f;
    }
    std::fill(in.begin() + static_cast<std::ptrdiff_t>(count), in.end(), 0.0f);
    fft_.run();

    std::span<const std::complex<float>> out = fft_.output();
    power_[0] = transformScale * (std::norm(out[0]) + std::norm(out[bins]));
    for (int k = 1; k < bins; ++k) power_[k] = transformScale * std::norm(out[k]);

    const float attack = coefficient(dt, attackSeconds);
    const float release = coefficient(dt, releaseSeconds);
    const float step = static_cast<float>(dt);

    for (int i = 0; i < bands_; ++i) {
        const int from = edges_[i];
        const int to = std::min(std::max(edges_[i + 1], from + 1), bins);
        float sum = 0.0f;
        for (int k = from; k < to; ++k) sum += power_[k];
        const float mean = sum / static_cast<float>(to - from) * inverseFullScale;
        const double db = 10.0 * std::log10(std::max(mean, floorPower));
        const float target = static_cast<float>(std::clamp((db + rangeDb) / rangeDb, 0.0, 1.0));
        const float level = smooth(levels_[i], target, attack, release);
        levels_[i] = level;

        // The mark hangs, then falls ever faster, as if dropped.
        if (peaks_[i] <= level) {
            peaks_[i] = level;
            peakFall_[i] = 0.0f;
        } else {
            peakFall_[i] += step * peakGravity;
            peaks_[i] = std::max(peaks_[i] - peakFall_[i] * step, level);
        }
    }

    float bassSum = 0.0f;
    for (int i = 0; i < std::min(bassBands, bands_); ++i) bassSum += levels_[i];
    const float d = bassSum / static_cast<float>(bassBands) - bass_;
    bass_ = smooth(bass_, bass_ + d, attack, release);
    kick_ = std::max(d, 0.0f) * kickGain;
}

}  // namespace vt::spectrum
