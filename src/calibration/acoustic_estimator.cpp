#include "calibration/acoustic_estimator.h"

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <memory>
#include <mutex>

#include "spectrum/real_fft.h"

namespace vt::calibration::AcousticEstimator {

namespace {

// Below this a cross-spectrum bin has no phase worth keeping; dividing by it
// leaves the bin near 0 instead of blowing it up.
constexpr float kMagnitudeFloor = 1e-20f;
constexpr float kMedianFloor = 1e-12f;
constexpr double kBandWidening = 0.1;

struct FftwFree {
    void operator()(void* p) const { fftwf_free(p); }
};
template <typename T>
using FftwBuffer = std::unique_ptr<T, FftwFree>;

struct PlanDestroy {
    void operator()(fftwf_plan_s* p) const {
        std::lock_guard guard(spectrum::fftwPlanLock());
        fftwf_destroy_plan(p);
    }
};
using Plan = std::unique_ptr<fftwf_plan_s, PlanDestroy>;

size_t nextPowerOfTwo(size_t n) {
    size_t p = 1;
    while (p < n) p <<= 1;
    return p;
}

std::complex<float> unitPhase(std::complex<float> x) {
    return x / std::max(std::abs(x), kMagnitudeFloor);
}

float median(std::vector<float> values) {
    if (values.empty()) return 0;
    auto mid = values.begin() + static_cast<long>(values.size() / 2);
    std::nth_element(values.begin(), mid, values.end());
    return *mid;
}

size_t peakIndex(const std::vector<float>& values) {
    return static_cast<size_t>(std::max_element(values.begin(), values.end()) - values.begin());
}

bool usable(std::span<const float> reference, std::span<const float> recording, double sampleRate) {
    return sampleRate > 0 && !reference.empty() && recording.size() > reference.size();
}

}  // namespace

std::vector<float> phatCorrelation(std::span<const float> recording,
                                   std::span<const float> reference, double sampleRate,
                                   std::optional<FrequencyBand> band) {
    if (recording.empty() || reference.empty() || sampleRate <= 0) return {};
    const size_t n = nextPowerOfTwo(recording.size() + reference.size());
    const size_t bins = n / 2 + 1;
    FftwBuffer<float> time(fftwf_alloc_real(n));
    FftwBuffer<fftwf_complex> recSpectrum(fftwf_alloc_complex(bins));
    FftwBuffer<fftwf_complex> refSpectrum(fftwf_alloc_complex(bins));
    if (!time || !recSpectrum || !refSpectrum) return {};
    Plan forwardRec, forwardRef, inverse;
    {
        std::lock_guard guard(spectrum::fftwPlanLock());
        forwardRec.reset(fftwf_plan_dft_r2c_1d(static_cast<int>(n), time.get(), recSpectrum.get(),
                                               FFTW_ESTIMATE));
        forwardRef.reset(fftwf_plan_dft_r2c_1d(static_cast<int>(n), time.get(), refSpectrum.get(),
                                               FFTW_ESTIMATE));
        inverse.reset(fftwf_plan_dft_c2r_1d(static_cast<int>(n), recSpectrum.get(), time.get(),
                                            FFTW_ESTIMATE));
    }
    if (!forwardRec || !forwardRef || !inverse) return {};

    float* t = time.get();
    std::fill(t, t + n, 0.0f);
    std::copy(recording.begin(), recording.end(), t);
    fftwf_execute(forwardRec.get());
    std::fill(t, t + n, 0.0f);
    std::copy(reference.begin(), reference.end(), t);
    fftwf_execute(forwardRef.get());

    auto* rec = reinterpret_cast<std::complex<float>*>(recSpectrum.get());
    const auto* ref = reinterpret_cast<const std::complex<float>*>(refSpectrum.get());
    const double lowHz = band ? band->lowHz * (1.0 - kBandWidening) : 0;
    const double highHz = band ? band->highHz * (1.0 + kBandWidening) : 0;
    for (size_t k = 1; k + 1 < bins; ++k) {
        const double hz = static_cast<double>(k) * sampleRate / static_cast<double>(n);
        const bool inside = !band || (hz >= lowHz && hz <= highHz);
        rec[k] = inside ? unitPhase(rec[k] * std::conj(ref[k])) : std::complex<float>{};
    }
    // The DC and Nyquist bins are real; a band leaves both out.
    for (size_t k : {size_t{0}, bins - 1}) {
        rec[k] = band ? std::complex<float>{} : unitPhase({rec[k].real() * ref[k].real(), 0.0f});
    }
    fftwf_execute(inverse.get());

    std::vector<float> out(recording.size());
    for (size_t i = 0; i < out.size(); ++i) out[i] = std::abs(t[i]);
    return out;
}

std::optional<Arrival> arrival(std::span<const float> reference, std::span<const float> recording,
                               double sampleRate) {
    if (!usable(reference, recording, sampleRate)) return std::nullopt;
    const auto corr = phatCorrelation(recording, reference, sampleRate);
    if (corr.empty()) return std::nullopt;
    const size_t peak = peakIndex(corr);
    if (!(corr[peak] > 0)) return std::nullopt;
    size_t onset = 0;
    while (corr[onset] < onsetFraction * corr[peak]) ++onset;
    return Arrival{static_cast<double>(onset) / sampleRate,
                   static_cast<double>(peak - onset) / sampleRate * 1000.0};
}

std::optional<Detection> detect(std::span<const float> reference, std::span<const float> recording,
                                double sampleRate) {
    const auto found = arrival(reference, recording, sampleRate);
    if (!found) return std::nullopt;
    const auto corr = phatCorrelation(recording, reference, sampleRate);
    const float peak = corr[peakIndex(corr)];
    if (!(peak > 0)) return std::nullopt;
    return Detection{found->seconds, found->spreadMs, peak / std::max(median(corr), kMedianFloor)};
}

std::optional<Detection> detectNearPeak(std::span<const float> reference,
                                        std::span<const float> recording, double sampleRate,
                                        FrequencyBand band) {
    if (!usable(reference, recording, sampleRate)) return std::nullopt;
    const auto corr = phatCorrelation(recording, reference, sampleRate, band);
    if (corr.empty()) return std::nullopt;
    const size_t peak = peakIndex(corr);
    if (!(corr[peak] > 0)) return std::nullopt;
    const float floor = std::max(median(corr), kMedianFloor);
    const float threshold = std::max(onsetFraction * corr[peak], noiseFloorFactor * floor);
    const auto lookBack = static_cast<size_t>(onsetSearchSec * sampleRate);
    size_t onset = peak > lookBack ? peak - lookBack : 0;
    while (onset < peak && corr[onset] < threshold) ++onset;
    return Detection{static_cast<double>(onset) / sampleRate,
                     static_cast<double>(peak - onset) / sampleRate * 1000.0, corr[peak] / floor};
}

std::optional<Measurement> relativeLatency(std::span<const float> sound,
                                           std::span<const float> referenceRecording,
                                           std::span<const float> outputRecording,
                                           double sampleRate, std::optional<FrequencyBand> band) {
    auto locate = [&](std::span<const float> recording) -> std::optional<Detection> {
        if (!band) return detect(sound, recording, sampleRate);
        return detectNearPeak(sound, recording, sampleRate, *band);
    };
    const auto reference = locate(referenceRecording);
    const auto output = locate(outputRecording);
    if (!reference || !output) return std::nullopt;
    const double spread = std::max(reference->spreadMs, output->spreadMs);
    return Measurement{(output->seconds - reference->seconds) * 1000.0,
                       spread,
                       spread <= trustedSpreadMs,
                       std::min(reference->strength, output->strength),
                       reference->seconds,
                       output->seconds};
}

}  // namespace vt::calibration::AcousticEstimator
