#include <time.h>

#include <cstdio>
#include <random>
#include <vector>

#include "spectrum/spectrum_analyser.h"

namespace {

double threadCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Microseconds of CPU per analyse() call, over a fresh block each frame so
// that no cache is warmer than it would be in the window.
double microsecondsPerAnalysis(int bands) {
    constexpr int kBlocks = 64;
    constexpr int kRuns = 4000;
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> dist(-0.25f, 0.25f);
    std::vector<float> noise(static_cast<std::size_t>(kBlocks) *
                             vt::spectrum::SpectrumAnalyser::size);
    for (float& v : noise) v = dist(rng);

    vt::spectrum::SpectrumAnalyser analyser(bands);
    std::span<const float> all(noise);
    auto block = [&](int k) {
        return all.subspan(
            static_cast<std::size_t>(k % kBlocks) * vt::spectrum::SpectrumAnalyser::size,
            vt::spectrum::SpectrumAnalyser::size);
    };
    for (int k = 0; k < 200; ++k) analyser.analyse(block(k), 1.0 / 60);
    const double start = threadCpuSeconds();
    for (int k = 0; k < kRuns; ++k) analyser.analyse(block(k), 1.0 / 60);
    return (threadCpuSeconds() - start) / kRuns * 1e6;
}

}  // namespace

int main() {
    for (int bands : {48, 64})
        std::printf("spectrum analyse bands=%d: %.1f us per call\n", bands,
                    microsecondsPerAnalysis(bands));
    return 0;
}
