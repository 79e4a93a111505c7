#include "spectrum/spectrum_state.h"

#include <gtest/gtest.h>

#include "spectrum/eq_analyser.h"
#include "spectrum/peak_hold.h"

namespace vt::spectrum {
namespace {

TEST(SpectrumState, PrepareAddsAnalysersAndSizesTheHistory) {
    SpectrumState s;
    s.prepare(2);
    ASSERT_EQ(s.analysers.size(), 2u);
    EXPECT_EQ(s.analysers[0].bands(), 48);
    EXPECT_EQ(s.historyRows, 96);
    EXPECT_EQ(s.history.size(), 96u * 160u);
    EXPECT_EQ(s.pixels.size(), 96u * 640u);

    s.history[5] = 1.0f;
    s.newest = 7;
    s.particles.push_back({});
    s.prepare(2);  // nothing to change: the history stays
    EXPECT_EQ(s.history[5], 1.0f);
    EXPECT_EQ(s.newest, 7);

    s.prepare(1);  // analysers are kept, the history follows the count
    EXPECT_EQ(s.analysers.size(), 2u);
    EXPECT_EQ(s.historyRows, 48);
    EXPECT_EQ(s.history.size(), 48u * 160u);
    EXPECT_EQ(s.history[5], 0.0f);
    EXPECT_EQ(s.newest, 0);
    EXPECT_TRUE(s.particles.empty());
}

TEST(SpectrumState, FrameTimeIsMeasuredFromTheLastFrame) {
    SpectrumState s;
    EXPECT_EQ(s.advance(10.0), 0.0);
    EXPECT_DOUBLE_EQ(s.advance(10.25), 0.25);
    EXPECT_EQ(s.advance(9.0), 0.0);  // a clock going back moves nothing
}

TEST(PeakHold, HoldsTheHighestUntilTheHoldRunsOut) {
    PeakHold p;
    p.note(0.8, 0.0, 1.5);
    p.note(0.3, 1.0, 1.5);
    EXPECT_EQ(p.value, 0.8);
    p.note(0.9, 1.2, 1.5);
    EXPECT_EQ(p.value, 0.9);
    p.note(0.3, 2.8, 1.5);
    EXPECT_EQ(p.value, 0.3);
}

TEST(EQAnalyser, SixtyFourBandsOnTheGraphsAxis) {
    EQAnalyser eq;
    ASSERT_EQ(eq.levels().size(), 64u);  // silent before the first run
    EXPECT_DOUBLE_EQ(EQAnalyser::bandLowHz(0), 40.0);
    EXPECT_NEAR(EQAnalyser::bandHighHz(63), 16000.0, 1e-6);
    EXPECT_NEAR(EQAnalyser::bandCentreHz(0), std::sqrt(40.0 * EQAnalyser::bandHighHz(0)), 1e-9);
    EXPECT_EQ(EQAnalyser::levelDb(1.0f), 0.0);
    EXPECT_EQ(EQAnalyser::levelDb(0.0f), -66.0);

    // A tone at 1 kHz shows in the band whose nominal range holds 1 kHz.
    for (std::size_t n = 0; n < eq.scratch().size(); ++n)
        eq.scratch()[n] = static_cast<float>(std::sin(2.0 * 3.141592653589793 * 43 * n / 2048));
    eq.run(0.0);
    for (int k = 1; k <= 60; ++k) eq.run(k * 0.05);
    int loudest = 0;
    for (int i = 1; i < 64; ++i)
        if (eq.levels()[i] > eq.levels()[loudest]) loudest = i;
    EXPECT_LE(EQAnalyser::bandLowHz(loudest), 1008.0 * 1.01);
    EXPECT_GE(EQAnalyser::bandHighHz(loudest), 1008.0 / 1.01);
}

}  // namespace
}  // namespace vt::spectrum
