// The delay plan: what each output is held back by so that what people hear
// lines up, in both playback modes.
#include <gtest/gtest.h>

#include <vector>

#include "delay/delay_plan.h"

namespace vt::delay {
namespace {

using V = std::vector<double>;
using B = std::vector<bool>;
namespace DP = DelayPlan;

TEST(DelayPlanTest, TheSlowestRowWaitsForNobodyAndTheOthersWaitForIt) {
    EXPECT_EQ(DP::engineDelays(V{300}, V{120}), V{0});
    const V latencies{100, 40};
    const V delays = DP::engineDelays(V{0, 0}, latencies);
    EXPECT_EQ(delays, (V{0, 60}));
    EXPECT_EQ(DP::heardMs(delays, latencies), (V{100, 100}));
    EXPECT_EQ(DP::engineDelays(V{-200, 0}, V{0, 0}), (V{0, 200}));
    EXPECT_EQ(DP::engineDelays(V{-200, 0, 150}), (V{0, 200, 350}));
    // A later offset on the slow row holds everything else back further.
    EXPECT_EQ(DP::engineDelays(V{50, 0}, V{100, 40}), (V{0, 10}));
}

TEST(DelayPlanTest, RowsNotCountedNeitherSetTheBaseNorGoBelowZero) {
    // The third row would be heard last, but it is disabled.
    EXPECT_EQ(DP::engineDelays(V{0, 0, 0}, V{10, 30, 500}, B{true, true, false}), (V{20, 0, 0}));
    EXPECT_EQ(DP::engineDelays(V{0, 0, 100}, V{10, 30, 0}, B{true, true, false}), (V{20, 0, 130}));
    // With nobody counted, everybody is.
    EXPECT_EQ(DP::engineDelays(V{0, 0}, V{10, 30}, B{false, false}), (V{20, 0}));
    EXPECT_TRUE(DP::engineDelays(V{}, V{}, B{}).empty());
}

TEST(DelayPlanTest, TogetherModeReportsTheCountedRowsAsFast) {
    const auto p = DP::plan(V{0, 0, 0}, V{0, 60, 200}, B{true, false, true}, PlaybackMode::together,
                            true, B{});
    EXPECT_EQ(p.delays, (V{200, 140, 0}));
    EXPECT_EQ(p.fast, (B{true, false, true}));
}

TEST(DelayPlanTest, InstantModeSplitsQuickFromSlow) {
    const V offsets{0, 0, 0}, latencies{0, 60, 200};
    const B counted{true, true, true};
    const auto synced = DP::plan(offsets, latencies, counted, PlaybackMode::instant, true, B{});
    EXPECT_EQ(synced.fast, (B{true, false, false}));
    EXPECT_EQ(synced.delays, (V{0, 140, 0}));
    const auto loose = DP::plan(offsets, latencies, counted, PlaybackMode::instant, false, B{});
    EXPECT_EQ(loose.fast, (B{true, false, false}));
    EXPECT_EQ(loose.delays, (V{0, 0, 0}));
}

TEST(DelayPlanTest, InstantModeHoldsTheFastGroupTogetherWithItsOffsets) {
    const auto p = DP::plan(V{0, 30, -20, 0}, V{10, 40, 20, 300}, B{true, true, true, false},
                            PlaybackMode::instant, true, B{});
    EXPECT_EQ(p.fast, (B{true, true, true, false}));
    // x = -10, -10, -40: the third row is the base.
    EXPECT_EQ(p.delays, (V{30, 30, 0, 0}));
}

TEST(DelayPlanTest, TheFastGroupHasHysteresis) {
    const V offsets{0, 0};
    const B counted{true, true};
    auto fast = [&](double lateness, const B& was) -> bool {
        return DP::plan(offsets, V{0, lateness}, counted, PlaybackMode::instant, true, was).fast[1];
    };
    EXPECT_TRUE(fast(65, B{true, true}));
    EXPECT_FALSE(fast(65, B{true, false}));
    EXPECT_TRUE(fast(80, B{true, true}));
    EXPECT_FALSE(fast(81, B{true, true}));
    EXPECT_TRUE(fast(50, B{true, false}));
    EXPECT_FALSE(fast(51, B{}));
    // A history shorter than the rows: the extra rows were not fast.
    EXPECT_FALSE(fast(65, B{true}));
}

TEST(DelayPlanTest, InstantModeWithNobodyCountedActsAsTogether) {
    const auto p = DP::plan(V{0, 0}, V{0, 100}, B{false, false}, PlaybackMode::instant, true, B{});
    EXPECT_EQ(p.delays, (V{100, 0}));
    EXPECT_EQ(p.fast, (B{false, false}));
}

TEST(DelayPlanTest, NoRowsGiveAnEmptyPlan) {
    const auto p = DP::plan(V{}, V{}, B{}, PlaybackMode::instant, true, B{true});
    EXPECT_TRUE(p.delays.empty());
    EXPECT_TRUE(p.fast.empty());
}

TEST(DelayPlanTest, SummariesForDisplay) {
    EXPECT_EQ(DP::earliestDelayMs(V{}), 0.0);
    EXPECT_EQ(DP::spreadMs(V{}), 0);
    EXPECT_EQ(DP::earliestDelayMs(V{120, -35.5, 40}), -35.5);
    EXPECT_EQ(DP::spreadMs(V{120, -35.5, 40}), 156);
    EXPECT_EQ(DP::spreadMs(V{0.2, 0.6}), 0);
}

TEST(PlaybackModeTest, StoredAsItsTitle) {
    EXPECT_EQ(title(PlaybackMode::together), "Together");
    EXPECT_EQ(title(PlaybackMode::instant), "Instant");
    EXPECT_EQ(playbackModeFromStored("Instant"), PlaybackMode::instant);
    EXPECT_EQ(playbackModeFromStored("instant"), PlaybackMode::together);
    EXPECT_EQ(playbackModeFromStored(""), PlaybackMode::together);
}

}  // namespace
}  // namespace vt::delay
