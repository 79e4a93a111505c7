#include <gtest/gtest.h>

#include "calibration/heard_difference.h"
#include "calibration/narrowing_search.h"
#include "calibration/tap_estimator.h"

namespace vt::calibration {
namespace {

TEST(TapEstimator, KeepsOnlyTapsThatCanAnswerTheirClick) {
    TapEstimator taps;
    taps.add(10.0, 9.99);   // before the click
    taps.add(10.0, 10.45);  // too late to be this click's
    EXPECT_EQ(taps.count(), 0);
    EXPECT_FALSE(taps.medianMs());
    taps.add(10.0, 10.2);
    taps.add(11.0, 11.3);
    EXPECT_NEAR(*taps.medianMs(), 250.0, 1e-9);
}

TEST(TapEstimator, SettlesOnlyOnceTheTapsAgree) {
    TapEstimator taps;
    int click = 0;
    // Around 200 ms, deviating by a median of 60.5 ms.
    for (double ms : {200, 200, 190, 210, 180, 141, 262, 270, 120, 280, 110, 290}) {
        taps.add(click, click + ms / 1000.0);
        ++click;
    }
    EXPECT_NEAR(*taps.spreadMs(), 60.5, 1e-6);
    EXPECT_FALSE(taps.settled(12));
    taps.add(click, click + 0.2);
    EXPECT_TRUE(taps.settled(12));
}

TEST(NarrowingSearch, StartsAroundTheCurrentValueInsideTheRange) {
    NarrowingSearch search(100.0, 300.0, latencyRange(false));
    EXPECT_EQ(search.low, 0.0);
    EXPECT_EQ(search.high, 400.0);
    EXPECT_EQ(search.candidates(), std::make_pair(100.0, 300.0));
}

TEST(NarrowingSearch, AListenerWhoHearsTheCloserCandidateFindsTheTruth) {
    for (double truth : {3.0, 137.0, 388.0}) {
        NarrowingSearch search(100.0, 300.0, latencyRange(false));
        while (!search.isResolved()) {
            const auto [a, b] = search.candidates();
            search.answer(std::abs(a - truth) < std::abs(b - truth) ? NarrowingSearch::Choice::a
                                                                    : NarrowingSearch::Choice::b);
        }
        EXPECT_LE(search.rounds, NarrowingSearch::maximumRounds);
        EXPECT_NEAR(search.bestMs(), truth, 2.0) << truth;
    }
}

TEST(NarrowingSearch, EndsInTheMiddleWhenNothingCanBeTold) {
    NarrowingSearch search(100.0, 300.0, latencyRange(false));
    while (!search.isResolved()) search.answer(NarrowingSearch::Choice::cannotTell);
    EXPECT_EQ(search.rounds, 10);
    EXPECT_NEAR(search.bestMs(), 200.0, 1e-9);
}

// Whatever delays the engine applied while listening and whatever the
// reference is believed to lag, the stored value is what the output's own
// report misses.
TEST(HeardDifference, StoresWhatTheOutputsReportMisses) {
    struct Case {
        double refTrue, outTrue, refEngine, outEngine, outReported;
    };
    for (const Case& c :
         {Case{30, 110, 80, 0, 0}, Case{250, 40, 0, 210, 25}, Case{12, 12, 5, 5, 12}}) {
        const double heard = (c.outEngine + c.outTrue) - (c.refEngine + c.refTrue);
        const RowTiming reference{c.refEngine, c.refTrue, c.refTrue};
        const RowTiming output{c.outEngine, c.outReported, c.outReported};
        EXPECT_NEAR(toStore(heard, reference, output) + c.outReported, c.outTrue, 1e-9);
    }
    EXPECT_TRUE(insideRange(-200, latencyRange(true)));
    EXPECT_FALSE(insideRange(-200, latencyRange(false)));
}

}  // namespace
}  // namespace vt::calibration
