#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "sendspin/clock_sync.h"
#include "sendspin/guest_render_clock.h"

namespace vt::sendspin {
namespace {

TEST(ClockSync, RecoversTheTrueOffsetFromTheBestQuarterDespiteAsymmetricDelays) {
    // The host's clock runs 2.5 s ahead of the phone's. Most exchanges have a slow
    // uplink (queueing), a quick few are symmetric: only those should be believed.
    const double trueOffset = 2.5;
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> slow(0.005, 0.080);
    ClockSync sync;
    double t = 100;
    for (int i = 0; i < 100; ++i) {
        const bool quick = i % 4 == 0;
        const double up = quick ? 0.001 : slow(rng);
        const double down = quick ? 0.001 : 0.002;
        sync.add({t, t + up + trueOffset, t + up + down});
        t += 0.5;
    }
    ASSERT_TRUE(sync.offset());
    EXPECT_NEAR(*sync.offset(), trueOffset, 1e-9);
    EXPECT_NEAR(*sync.bestRTT(), 0.002, 1e-9);
    EXPECT_NEAR(*sync.toMac(1.0), 3.5, 1e-9);
    EXPECT_NEAR(*sync.toPhone(3.5), 1.0, 1e-9);
}

TEST(ClockSync, NeedsFourSamplesAndIgnoresNegativeRoundTrips) {
    ClockSync sync;
    for (int i = 0; i < 3; ++i) sync.add({0, 10, 1});
    EXPECT_FALSE(sync.offset());
    EXPECT_FALSE(sync.toMac(0));
    sync.add({5, 0, 4});  // answered before it was asked: dropped
    EXPECT_EQ(sync.count(), 3u);
    EXPECT_FALSE(sync.offset());
    // With eight, the mean of the two quickest.
    ClockSync eight;
    for (int i = 0; i < 8; ++i) {
        const double rtt = 0.1 * (i + 1);
        eight.add({0, 1.0 * i, rtt});
    }
    EXPECT_NEAR(*eight.offset(), (0 - 0.05 + 1 - 0.1) / 2, 1e-12);
}

TEST(ClockSync, AWindowKeepsOnlyTheNewest) {
    ClockSync sync(2);  // raised to four
    for (int i = 0; i < 10; ++i) sync.add({0, static_cast<double>(i), 0});
    EXPECT_EQ(sync.count(), 4u);
    EXPECT_DOUBLE_EQ(*sync.offset(), 6.0);  // the first of the four kept (stable sort)
}

TEST(GuestRenderClock, KeepsTheLastGoodValues) {
    GuestRenderClock clock;
    EXPECT_EQ(clock.read(std::nullopt, std::nullopt), std::pair(std::optional<double>{}, 0.0));
    EXPECT_EQ(clock.read(1.5, 0.02), std::pair(std::optional<double>{1.5}, 0.02));
    EXPECT_EQ(clock.read(std::nullopt, std::nullopt), std::pair(std::optional<double>{1.5}, 0.02));
    EXPECT_EQ(clock.read(std::nullopt, 0.03), std::pair(std::optional<double>{1.5}, 0.03));
}

TEST(GuestSpeaker, PlayoutStartReadsTheHeadroomBehindTheStamp) {
    EXPECT_EQ(GuestSpeaker::playoutStartUs(10.0, 2.0000004, 200.0), 12'000'000 - 200'000);
    EXPECT_EQ(GuestSpeaker::playoutStartUs(0.0, -1.0, 0.0009), -1'000'000);
}

}  // namespace
}  // namespace vt::sendspin
