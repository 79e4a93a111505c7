#include "spectrum/spectrum_analyser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

#include "counting_allocator.h"

namespace vt::spectrum {
namespace {

constexpr int N = SpectrumAnalyser::size;

// A sine with exactly `bin` periods in the block, so the window's leakage
// lands on bin - 1, bin and bin + 1 only.
std::vector<float> centredSine(int bin, double amplitude) {
    std::vector<float> s(N);
    for (int n = 0; n < N; ++n)
        s[n] = static_cast<float>(amplitude * std::sin(2.0 * std::numbers::pi * bin * n / N));
    return s;
}

int bandOf(const SpectrumAnalyser& a, int bin) {
    auto e = a.edges();
    for (int i = 0; i < a.bands(); ++i)
        if (bin >= e[i] && bin < e[i + 1]) return i;
    return -1;
}

void settle(SpectrumAnalyser& a, const std::vector<float>& s) {
    for (int k = 0; k < 100; ++k) a.analyse(s, 0.05);
}

TEST(SpectrumAnalyser, EdgesAreDistinctBinsFrom40HzTo16kHz) {
    for (int bands : {48, 64}) {
        SpectrumAnalyser a(bands);
        auto e = a.edges();
        ASSERT_EQ(static_cast<int>(e.size()), bands + 1);
        EXPECT_EQ(e.front(), 1);   // 40 Hz is bin 1.7
        EXPECT_EQ(e.back(), 682);  // 16 kHz is bin 682.7
        for (int i = 1; i <= bands; ++i) EXPECT_GT(e[i], e[i - 1]) << bands << " bands, edge " << i;
    }
    // At 64 bands the second edge rounds down onto the first bin as well.
    SpectrumAnalyser a(64);
    EXPECT_EQ(a.edges()[1], 2);
}

TEST(SpectrumAnalyser, SilenceStaysAtTheFloor) {
    SpectrumAnalyser a;
    settle(a, std::vector<float>(N, 0.0f));
    for (float v : a.levels()) EXPECT_EQ(v, 0.0f);
    for (float v : a.peaks()) EXPECT_EQ(v, 0.0f);
    EXPECT_EQ(a.bass(), 0.0f);
    EXPECT_EQ(a.kick(), 0.0f);
}

TEST(SpectrumAnalyser, FullScaleSineOnABinReachesTheTopOfItsBandOnly) {
    SpectrumAnalyser a;
    const int bin = 43;  // 1008 Hz
    settle(a, centredSine(bin, 1.0));
    const int band = bandOf(a, bin);
    ASSERT_GE(band, 0);
    // The lobe's power is spread over the band's bins, a few dB under the top.
    EXPECT_GT(a.levels()[band], 0.95f);
    auto loudest = std::max_element(a.levels().begin(), a.levels().end());
    EXPECT_EQ(loudest - a.levels().begin(), band);
    // Two bands away the window has nothing left.
    EXPECT_EQ(a.levels()[band + 2], 0.0f);
    EXPECT_EQ(a.levels()[band - 2], 0.0f);
}

TEST(SpectrumAnalyser, LevelFollowsDecibelsBelowFullScale) {
    // The main lobe holds N^2 * amplitude^2 of power, which is
    // 4 * fullScale * amplitude^2 spread over the band's bins. Wrong window
    // normalisation or transform scaling would shift this by 4 or 6 dB.
    SpectrumAnalyser a;
    const int bin = 300;  // 7 kHz, in a band several bins wide
    const int band = bandOf(a, bin);
    const int from = a.edges()[band];
    const int bins = a.edges()[band + 1] - from;
    ASSERT_GE(bin - 1, from);
    ASSERT_LT(bin + 1, from + bins);
    const double amplitude = 0.01;
    settle(a, centredSine(bin, amplitude));
    const double db = 10.0 * std::log10(4.0 * amplitude * amplitude / bins);
    EXPECT_NEAR(a.levels()[band], (db + 66.0) / 66.0, 1e-3);
}

TEST(SpectrumAnalyser, RiseAndFallTakeTheSameTimeAtAnyFrameRate) {
    const auto loud = centredSine(43, 1.0);
    const std::vector<float> quiet(N, 0.0f);
    SpectrumAnalyser settled;
    const int band = bandOf(settled, 43);
    settle(settled, loud);
    const double top = settled.levels()[band];
    for (int frames : {1, 7, 50}) {
        SpectrumAnalyser a;
        const double up = SpectrumAnalyser::attackSeconds / frames;
        for (int k = 0; k < frames; ++k) a.analyse(loud, up);
        EXPECT_NEAR(a.levels()[band], top * (1.0 - std::exp(-1.0)), 1e-4) << frames << " frames";

        settle(a, loud);
        const double down = SpectrumAnalyser::releaseSeconds / frames;
        for (int k = 0; k < frames; ++k) a.analyse(quiet, down);
        EXPECT_NEAR(a.levels()[band], top * std::exp(-1.0), 1e-4) << frames << " frames";
    }
}

TEST(SpectrumAnalyser, NoTimeMovesNothing) {
    SpectrumAnalyser a;
    const int band = bandOf(a, 43);
    settle(a, centredSine(43, 1.0));
    a.analyse(std::vector<float>(N, 0.0f), 0.1);
    const std::vector<float> levels(a.levels().begin(), a.levels().end());
    const std::vector<float> peaks(a.peaks().begin(), a.peaks().end());
    const float bass = a.bass();
    ASSERT_GT(peaks[band], levels[band]);

    a.analyse(std::vector<float>(N, 0.0f), 0.0);
    a.analyse(centredSine(200, 1.0), 0.0);
    EXPECT_EQ(std::vector<float>(a.levels().begin(), a.levels().end()), levels);
    EXPECT_EQ(std::vector<float>(a.peaks().begin(), a.peaks().end()), peaks);
    EXPECT_EQ(a.bass(), bass);
}

TEST(SpectrumAnalyser, PeakMarkHangsAboveTheLevelAndFallsFasterAndFaster) {
    SpectrumAnalyser a;
    const int band = bandOf(a, 43);
    settle(a, centredSine(43, 1.0));
    const std::vector<float> quiet(N, 0.0f);
    std::vector<float> marks{a.peaks()[band]};
    for (int k = 0; k < 4; ++k) {
        a.analyse(quiet, 0.05);
        EXPECT_GE(a.peaks()[band], a.levels()[band]);
        marks.push_back(a.peaks()[band]);
    }
    for (int k = 2; k < 5; ++k) EXPECT_GT(marks[k - 1] - marks[k], marks[k - 2] - marks[k - 1]);
    // Falling by 0.5 * 1.6 * t^2, the mark lands on the level well inside two
    // seconds.
    for (int k = 0; k < 40; ++k) a.analyse(quiet, 0.05);
    EXPECT_EQ(a.peaks()[band], a.levels()[band]);
}

TEST(SpectrumAnalyser, KickMarksOnlyARisingBass) {
    SpectrumAnalyser a;
    const auto bassTone = centredSine(3, 0.5);  // 70 Hz, in the lowest bands
    a.analyse(bassTone, 1.0 / 60);
    EXPECT_GT(a.kick(), 0.0f);
    settle(a, bassTone);
    EXPECT_GT(a.bass(), 0.0f);
    EXPECT_LT(a.kick(), 1e-4f);
    a.analyse(std::vector<float>(N, 0.0f), 1.0 / 60);
    EXPECT_EQ(a.kick(), 0.0f);
}

TEST(SpectrumAnalyser, BrokenInputIsTreatedAsSilence) {
    SpectrumAnalyser a;
    std::vector<float> s = centredSine(43, 1.0);
    s[100] = std::nanf("");
    s[200] = INFINITY;
    a.analyse(s, 0.05);
    for (float v : a.levels()) EXPECT_TRUE(std::isfinite(v));
    a.analyse(std::vector<float>(10, 0.5f), std::nan(""));  // short, no time
    for (float v : a.levels()) EXPECT_TRUE(std::isfinite(v));
}

TEST(SpectrumAnalyser, AnalysisAllocatesNothing) {
    SpectrumAnalyser a(64);
    const auto s = centredSine(43, 1.0);
    a.analyse(s, 0.0);
    heap_counting_start();
    for (int k = 0; k < 10; ++k) a.analyse(s, 1.0 / 60);
    EXPECT_EQ(heap_counting_stop(), 0);
}

}  // namespace
}  // namespace vt::spectrum
