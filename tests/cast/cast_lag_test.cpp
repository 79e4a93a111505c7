#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "cast/cast_lag_controller.h"
#include "cast/cast_lag_estimator.h"
#include "cast/cast_latency_publisher.h"

namespace vt::cast {
namespace {

TEST(CastLagEstimator, GivesAHighQuantileFromSixteenSamples) {
    CastLagEstimator estimator;
    // Lags 0.00, 0.01, ... in shuffled order: time - start - media.
    const int order[] = {7, 3, 15, 0, 9, 12, 1, 4, 14, 8, 2, 11, 5, 13, 6, 10};
    for (int i = 0; i < 15; ++i) estimator.add(10.0 + order[i], 10.0 + order[i] - 0.01 * order[i]);
    EXPECT_FALSE(estimator.lag(0.0)) << "15 samples are not enough";
    estimator.add(10.0 + order[15], 10.0 + order[15] - 0.01 * order[15]);
    // round(15 * 58 / 59) = round(14.75) = 15: the largest.
    ASSERT_TRUE(estimator.lag(0.0));
    EXPECT_NEAR(*estimator.lag(0.0), 0.15, 1e-9);
    EXPECT_NEAR(*estimator.lag(1.0), -0.85, 1e-9) << "a later stream start, a smaller lag";

    // With 60 samples the index is round(59 * 58 / 59) = 58: the second largest.
    for (int i = 0; i < 60; ++i) estimator.add(100.0 + i, 100.0 + i - 0.001 * i);
    EXPECT_EQ(estimator.count(), 60u);
    EXPECT_NEAR(*estimator.lag(0.0), 0.058, 1e-9);
    estimator.reset();
    EXPECT_FALSE(estimator.lag(0.0));
}

TEST(CastLagEstimator, CarriesSamplesAtAnotherRateForwardToTheNewest) {
    // At 1.1 the TV eats 0.1 s of lag every second: 2.0 s at t=0, 1.0 s at t=10.
    CastLagEstimator estimator;
    for (int i = 0; i <= 20; ++i) {
        const double t = i * 0.5;
        estimator.add(t, t * 1.1 - 2.0);
    }
    EXPECT_NEAR(*estimator.lag(0.0, 1.1), 1.0, 1e-9);
    EXPECT_GT(*estimator.lag(0.0), 1.9) << "unprojected, the quantile finds the oldest";
}

TEST(CastLagEstimator, DriftIsTheSlopeOfMediaOnTime) {
    CastLagEstimator estimator;
    for (int i = 0; i < 20; ++i) estimator.add(i * 0.5, i * 0.5 * (1.0 + 50e-6));
    ASSERT_TRUE(estimator.driftPPM());
    EXPECT_NEAR(*estimator.driftPPM(), 50.0, 0.01);
    CastLagEstimator still;
    for (int i = 0; i < 20; ++i) still.add(5.0, i);
    EXPECT_FALSE(still.driftPPM()) << "no spread of time, no slope";
}

TEST(CastLagEstimator, BelievesRoundTripsUntilItKnowsBetter) {
    CastLagEstimator estimator;
    EXPECT_FALSE(estimator.noteRTT(-0.001));
    EXPECT_TRUE(estimator.noteRTT(1.0)) << "no median yet";
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(estimator.noteRTT(0.01)) << "fewer than six held";
    // Six held now: the median before adding was the upper middle of
    // {1.0, 0.01 x4} = 0.01; the limit is 3 x 0.01.
    EXPECT_TRUE(estimator.noteRTT(0.03));
    EXPECT_FALSE(estimator.noteRTT(0.031));
    EXPECT_FALSE(estimator.noteRTT(0.5)) << "still kept, and judged against";
    // A fast network does not make every answer suspicious: the floor is 5 ms.
    CastLagEstimator fast;
    for (int i = 0; i < 10; ++i) fast.noteRTT(0.0001);
    EXPECT_TRUE(fast.noteRTT(0.015));
    EXPECT_FALSE(fast.noteRTT(0.0151));
    // Only thirty are held: thirty slow answers make slow the norm.
    for (int i = 0; i < 30; ++i) fast.noteRTT(0.2);
    EXPECT_NEAR(*fast.medianRTT(), 0.2, 1e-12);
    EXPECT_TRUE(fast.noteRTT(0.6));
}

TEST(CastLagController, LocksAfterTwoReadingsInBand) {
    CastLagController c;
    EXPECT_FALSE(c.observe(5.0, 0.9, "PLAYING").rate) << "the first second decides nothing";
    EXPECT_FALSE(c.observe(5.0, 3.0, "PAUSED").rate);
    auto d = c.observe(1.05, 2.0, "PLAYING");
    EXPECT_FALSE(d.didLock);
    EXPECT_FALSE(d.rate);
    d = c.observe(1.05, 2.5, "PLAYING");
    EXPECT_TRUE(d.didLock);
    EXPECT_FALSE(d.rate) << "already at 1.0";
    EXPECT_TRUE(c.locked());

    // A correction in progress is ended at the lock.
    CastLagController slow;
    EXPECT_EQ(slow.observe(1.3, 2.0, "PLAYING").rate, 1.1);
    EXPECT_FALSE(slow.observe(1.2, 2.5, "PLAYING").rate) << "same rate, no new command";
    EXPECT_FALSE(slow.observe(1.05, 3.0, "PLAYING").didLock);
    // Being in band chose 1.0 on the first reading already.
    CastLagController early;
    EXPECT_EQ(early.observe(0.7, 2.0, "PLAYING").rate, 0.95);
    early.observe(1.0, 2.5, "PLAYING");
    EXPECT_TRUE(early.observe(1.0, 3.0, "PLAYING").didLock);

    CastLagController correcting;
    correcting.observe(1.5, 2.0, "PLAYING");   // 1.1
    correcting.observe(1.05, 2.5, "PLAYING");  // in band once: rate 1.0 commanded
    EXPECT_EQ(correcting.rate(), 1.0);
    // An out-of-band reading in between resets the count.
    CastLagController interrupted;
    interrupted.observe(1.0, 2.0, "PLAYING");
    interrupted.observe(1.5, 2.5, "PLAYING");
    EXPECT_FALSE(interrupted.observe(1.0, 3.0, "PLAYING").didLock);
    EXPECT_TRUE(interrupted.observe(1.0, 3.5, "PLAYING").didLock);
    EXPECT_EQ(interrupted.rate(), 1.0);
}

TEST(CastLagController, CatchesUpFastAndFallsBackWhenTheRateIsRefused) {
    CastLagController c;
    // e = 2.0 > (2 - 1) x 1.5.
    EXPECT_EQ(c.observe(3.0, 2.0, "PLAYING").rate, 2.0);
    EXPECT_EQ(c.rateRejected(), 1.5);
    EXPECT_EQ(c.rate(), 1.5);
    EXPECT_EQ(c.fastRate(), 1.5);
    // From now on the fast limit is (1.5 - 1) x 1.5 = 0.75.
    EXPECT_FALSE(c.observe(1.8, 2.5, "PLAYING").rate) << "0.8 > 0.75: still 1.5";
    EXPECT_EQ(c.observe(1.7, 3.0, "PLAYING").rate, 1.1);
    EXPECT_EQ(c.rateRejected(), std::nullopt) << "a second refusal gives up on rates";
    EXPECT_EQ(c.rate(), 1.0);
}

TEST(CastLagController, HoldsWithHysteresisOnceLocked) {
    CastLagController c;
    c.observe(1.0, 2.0, "PLAYING");
    ASSERT_TRUE(c.observe(1.0, 2.5, "PLAYING").didLock);
    EXPECT_FALSE(c.observe(1.25, 3.0, "PLAYING").rate) << "0.25 is inside the wide band";
    EXPECT_EQ(c.observe(1.26, 3.5, "PLAYING").rate, 1.02);
    EXPECT_FALSE(c.observe(1.15, 4.0, "PLAYING").rate) << "a correction runs to within 0.1";
    EXPECT_EQ(c.observe(1.09, 4.5, "PLAYING").rate, 1.0) << "back within 0.1";
    EXPECT_EQ(c.observe(0.74, 5.0, "PLAYING").rate, 0.98);
    EXPECT_FALSE(c.observe(0.85, 5.5, "PLAYING").rate);
    EXPECT_EQ(c.observe(0.95, 6.0, "PLAYING").rate, 1.0);
    // A correction that overshoots turns round at once.
    EXPECT_EQ(c.observe(1.3, 6.5, "PLAYING").rate, 1.02);
    EXPECT_EQ(c.observe(0.8, 7.0, "PLAYING").rate, 0.98);
}

TEST(CastLagController, AStallRaisesTheTargetOnceAndRecovers) {
    CastLagController c;
    c.observe(1.0, 2.0, "PLAYING");
    c.observe(1.0, 2.5, "PLAYING");
    auto d = c.observe(0, 3.0, "BUFFERING");
    EXPECT_EQ(d.raisedTarget, 1.5);
    EXPECT_TRUE(c.recovering());
    EXPECT_FALSE(c.observe(0, 3.0, "BUFFERING").raisedTarget) << "the second stall in a row";
    EXPECT_EQ(c.observe(2.0, 4.0, "PLAYING").rate, 1.25);
    EXPECT_EQ(c.observe(1.7, 4.5, "PLAYING").rate, 1.05);
    EXPECT_EQ(c.observe(1.3, 5.0, "PLAYING").rate, 0.98);
    EXPECT_EQ(c.observe(1.5, 5.5, "PLAYING").rate, 1.0);
    EXPECT_FALSE(c.recovering());

    // The target tops out at 3 s.
    for (int stall = 0; stall < 5; ++stall) {
        c.observe(0, 6.0, "BUFFERING");
        c.observe(c.target(), 7.0, "PLAYING");
    }
    EXPECT_EQ(c.target(), 3.0);
    EXPECT_FALSE(c.observe(0, 8.0, "BUFFERING").raisedTarget);
}

TEST(CastLatencyPublisher, PublishesRealMovesAtMostEveryTwoSeconds) {
    CastLatencyPublisher p;
    EXPECT_EQ(p.offer(1.0, 100.0, false), 1.0);
    EXPECT_FALSE(p.offer(1.005, 103.0, false)) << "exactly 5 ms is no move";
    EXPECT_FALSE(p.offer(1.006, 101.9, false)) << "too soon";
    EXPECT_EQ(p.offer(1.006, 102.0, false), 1.006);
    EXPECT_EQ(p.offer(1.006, 102.1, true), 1.006) << "forced";
    p.set(1.5, 110.0);
    EXPECT_FALSE(p.offer(1.2, 111.0, false));
    EXPECT_EQ(p.offer(1.2, 112.0, false), 1.2);
}

// The estimator and controller against a simulated TV on a virtual clock:
// answers that come back after a random delay, now and then a very late
// one, a TV clock 80 ppm fast, and TVs that refuse a rate of 2.
struct SimulatedTV {
    double lag;         // seconds of stream written but not yet played
    double played = 0;  // media seconds played
    double rate = 1.0;
    bool refusesTwo = false;

    void run(double seconds) {
        const double media = seconds * rate * (1.0 + 80e-6);
        played += media;
        lag += seconds - media;
    }
};

struct SimulationResult {
    bool locked = false;
    double lockedAt = 0;
    double estimate = 0;
    double trueLag = 0;
};

SimulationResult simulate(double startLag, bool refusesTwo, uint32_t seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> rtt(0.004, 0.030);
    std::uniform_real_distribution<double> where(0.0, 1.0);
    SimulatedTV tv{startLag, 0, 1.0, refusesTwo};
    CastLagEstimator estimator;
    CastLagController controller;
    CastLagReckoning reckoning;
    SimulationResult result;
    const double streamStart = 0.0;
    double now = startLag;  // the buffer filled before play began
    double settleUntil = 0;
    for (int poll = 0; poll < 240; ++poll) {  // two minutes at 0.5 s
        double r = rtt(random);
        if (where(random) < 0.05) r += 0.4;  // a late answer
        const double sentAt = now;
        const double answerAt = sentAt + where(random) * r;  // when the TV read its position
        tv.run(answerAt - now);
        const double media = tv.played;
        tv.run(sentAt + r - answerAt);
        now = sentAt + r;
        if (estimator.noteRTT(r) && now >= settleUntil) estimator.add((now + sentAt) * 0.5, media);
        auto lag = estimator.lag(streamStart, tv.rate);
        if (lag) reckoning.start(*lag, now, tv.rate);
        const bool measured = lag.has_value();
        if (!lag && controller.rate() != 1.0) lag = reckoning.at(now);
        if (lag) {
            const auto d = controller.observe(*lag, media, "PLAYING");
            if (d.rate) {
                if (*d.rate == 2.0 && tv.refusesTwo) {
                    if (auto instead = controller.rateRejected()) tv.rate = *instead;
                } else {
                    tv.rate = *d.rate;
                }
                estimator.reset();
                reckoning.start(*lag, now, tv.rate);
                settleUntil = now + 1.5;
            }
            if (d.didLock && !result.locked) {
                result.locked = true;
                result.lockedAt = now - startLag;
            }
            if (measured) result.estimate = *lag;
        }
        tv.run(0.5 - r);
        now = sentAt + 0.5;
    }
    result.trueLag = tv.lag;
    return result;
}

TEST(CastLagSimulation, LocksOnTargetAndEstimatesTheTrueLag) {
    for (uint32_t seed = 1; seed <= 5; ++seed) {
        for (const bool refusesTwo : {false, true}) {
            for (const double startLag : {0.5, 1.0, 1.8, 2.45, 3.0, 5.0}) {
                const auto r = simulate(startLag, refusesTwo, seed);
                SCOPED_TRACE(::testing::Message() << "seed " << seed << " start " << startLag
                                                  << (refusesTwo ? " refuses 2" : ""));
                EXPECT_TRUE(r.locked);
                EXPECT_LT(r.lockedAt, 45.0);
                EXPECT_NEAR(r.trueLag, 1.0, 0.26) << "held within the wide band";
                EXPECT_NEAR(r.estimate, r.trueLag, 0.03) << "late answers do not drag the estimate";
            }
        }
    }
}

}  // namespace
}  // namespace vt::cast
