#include "platform/pulse/stream_clock.h"

#include <gtest/gtest.h>

#include <random>

namespace vt::platform::pulse {
namespace {

TEST(StreamClock, AveragesJitteryAndOutlyingSnapshotsToTheTrueLine) {
    const double rate = 48000, bps = rate * 8, trueOffset = 12.345678;
    StreamClock clock(bps);
    EXPECT_FALSE(clock.valid());
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> jitter(-0.0015, 0.0015);  // +-1.5 ms per snapshot
    for (int i = 0; i < 200; ++i) {
        double position = i * 0.02;
        double noise = jitter(rng);
        if (i % 10 == 3) noise += 0.05;  // a late answer now and then
        clock.addSnapshot(position + trueOffset + noise, position);
    }
    ASSERT_TRUE(clock.valid());
    EXPECT_NEAR(clock.offset(), trueOffset, 0.0005);
    EXPECT_NEAR(clock.hostTimeOf(static_cast<int64_t>(bps * 10)), trueOffset + 10, 0.0005);
}

TEST(StreamClock, FollowsAStepWithinOneWindow) {
    StreamClock clock(8 * 48000);
    for (int i = 0; i < 40; ++i) clock.addSnapshot(1.0 + i * 0.02, i * 0.02);
    EXPECT_NEAR(clock.offset(), 1.0, 1e-9);
    for (int i = 40; i < 40 + static_cast<int>(StreamClock::kWindow); ++i)
        clock.addSnapshot(1.1 + i * 0.02, i * 0.02);
    EXPECT_NEAR(clock.offset(), 1.1, 1e-9);
}

TEST(WallClock, MapsNowOntoTheMonotonicClock) {
    timeval wall{};
    gettimeofday(&wall, nullptr);
    timespec mono{};
    clock_gettime(CLOCK_MONOTONIC, &mono);
    double m = mono.tv_sec + mono.tv_nsec * 1e-9;
    EXPECT_NEAR(monotonicOfWall(wall), m, 0.001);
}

}  // namespace
}  // namespace vt::platform::pulse
