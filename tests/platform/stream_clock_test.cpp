#include "platform/pulse/stream_clock.h"

#include <gtest/gtest.h>

#include <random>

namespace vt::platform::pulse {
namespace {

// Snapshots every 20 ms of a stream whose clock runs `drift` fast against
// the host's, answered late as measured on a busy machine: most within
// ~50 us, a quarter by up to 5 ms, never early.
struct Snapshots {
    std::mt19937 rng{7};
    std::uniform_real_distribution<double> small{0, 0.00005};
    std::uniform_real_distribution<double> large{0, 0.005};
    int i = 0;
    // Host time of stream position p (seconds) on the true line.
    static double truth(double p, double offset, double drift) { return p + offset - drift * p; }
    void feed(StreamClock& clock, double offset, double drift) {
        double p = i * 0.02;
        double late = i % 4 == 1 ? large(rng) : small(rng);
        clock.addSnapshot(truth(p, offset, drift) + late, p);
        ++i;
    }
};

TEST(StreamClock, FollowsTheEarliestAnswersNotTheLateOnes) {
    const double bps = 48000.0 * 8, offset = 12.345678;
    StreamClock clock(bps);
    Snapshots snaps;
    for (int k = 0; k < 3; ++k) snaps.feed(clock, offset, 0);
    EXPECT_FALSE(clock.valid());  // not before the first group has its few
    for (int k = 0; k < 300; ++k) {
        snaps.feed(clock, offset, 0);
        ASSERT_TRUE(clock.valid());
        if (k > 16) {
            ASSERT_NEAR(clock.hostTimeOf(static_cast<int64_t>(bps * snaps.i * 0.02)),
                        Snapshots::truth(snaps.i * 0.02, offset, 0), 0.00005);
        }
    }
}

TEST(StreamClock, TracksTheDriftOfTheSinksClock) {
    const double bps = 44100.0 * 8, offset = 3.5, drift = 155e-6;  // as a null sink does
    StreamClock clock(bps);
    Snapshots snaps;
    for (int k = 0; k < 400; ++k) snaps.feed(clock, offset, drift);
    EXPECT_NEAR(clock.drift(), -drift, 40e-6);
    // Where the engine asks: a little ahead of the newest snapshot.
    const double p = snaps.i * 0.02 + 0.03;
    EXPECT_NEAR(clock.hostTimeOf(static_cast<int64_t>(p * bps)), Snapshots::truth(p, offset, drift),
                0.00002);
}

TEST(StreamClock, StartsAfreshAfterAJump) {
    const double bps = 48000.0 * 8;
    const int group = static_cast<int>(StreamClock::kGroup);
    auto at = [&](StreamClock& c, Snapshots& s) {
        return c.hostTimeOf(static_cast<int64_t>(s.i * 0.02 * bps)) - s.i * 0.02;
    };
    {
        // Re-anchored 5 ms earlier: taken up as soon as one whole group saw it.
        StreamClock clock(bps);
        Snapshots snaps;
        for (int k = 0; k < 6 * group; ++k) snaps.feed(clock, 1.0, 0);
        for (int k = 0; k < group; ++k) snaps.feed(clock, 0.995, 0);
        EXPECT_NEAR(at(clock, snaps), 0.995, 0.0001);
    }
    {
        // 5 ms later: the same as groups without a timely answer, so it
        // takes a run of whole groups that all agree.
        StreamClock clock(bps);
        Snapshots snaps;
        for (int k = 0; k < 6 * group; ++k) snaps.feed(clock, 1.0, 0);
        for (size_t g = 1; g < StreamClock::kLaterGroups; ++g) {
            for (int k = 0; k < group; ++k) snaps.feed(clock, 1.005, 0);
            EXPECT_NEAR(at(clock, snaps), 1.0, 0.0001) << g;
        }
        for (int k = 0; k < group; ++k) snaps.feed(clock, 1.005, 0);
        EXPECT_NEAR(at(clock, snaps), 1.005, 0.0001);
    }
}

TEST(StreamClock, AGroupWithoutATimelyAnswerDoesNotMoveTheLine) {
    const double bps = 48000.0 * 8;
    const int group = static_cast<int>(StreamClock::kGroup);
    StreamClock clock(bps);
    Snapshots snaps;
    for (int k = 0; k < 6 * group; ++k) snaps.feed(clock, 2.0, 0);
    // A busy third of a second: every answer 2-4 ms late.
    for (int k = 0; k < group; ++k) {
        double p = snaps.i * 0.02;
        clock.addSnapshot(p + 2.0 + 0.002 + 0.002 * (k % 3) / 2, p);
        ++snaps.i;
    }
    for (int k = 0; k < 3 * group; ++k) {
        snaps.feed(clock, 2.0, 0);
        ASSERT_NEAR(clock.hostTimeOf(static_cast<int64_t>(snaps.i * 0.02 * bps)),
                    snaps.i * 0.02 + 2.0, 0.0001)
            << k;
    }
}

TEST(WallClock, MapsNowOntoTheMonotonicClock) {
    timeval wall{};
    gettimeofday(&wall, nullptr);
    timespec mono{};
    clock_gettime(CLOCK_MONOTONIC, &mono);
    double m = mono.tv_sec + mono.tv_nsec * 1e-9;
    EXPECT_NEAR(monotonicOfWall(wall), m, 0.001);
}

TEST(StreamClock, AStarvedServerAnsweringLateForSecondsDoesNotMoveTheLine) {
    // Seen on two cores under a load of 12: for over a second every answer
    // came 0.2-1.5 s late, and a line that took it up made the outputs on it
    // play that much later for good.
    const double bps = 48000.0 * 8;
    const int group = static_cast<int>(StreamClock::kGroup);
    StreamClock clock(bps);
    Snapshots snaps;
    for (int k = 0; k < 15 * group; ++k) snaps.feed(clock, 2.0, 0);
    for (int k = 0; k < 4 * group; ++k) {
        double p = snaps.i * 0.02;
        clock.addSnapshot(p + 2.0 + 0.2 + 1.3 * (k % 7) / 6, p);
        ++snaps.i;
        ASSERT_NEAR(clock.hostTimeOf(static_cast<int64_t>(snaps.i * 0.02 * bps)),
                    snaps.i * 0.02 + 2.0, 0.0001)
            << k;
    }
    for (int k = 0; k < 3 * group; ++k) {
        snaps.feed(clock, 2.0, 0);
        ASSERT_NEAR(clock.hostTimeOf(static_cast<int64_t>(snaps.i * 0.02 * bps)),
                    snaps.i * 0.02 + 2.0, 0.0001)
            << k;
    }
}

}  // namespace
}  // namespace vt::platform::pulse
