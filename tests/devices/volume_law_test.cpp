#include "devices/volume_law.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace vt::devices {
namespace {

TEST(SystemVolume, TheMonitorCarriesItSoTheEngineAddsNothing) {
    // Whatever the capture sink's volume, the server has applied it already.
    EXPECT_DOUBLE_EQ(SystemVolume::engineGain(false, 0.125), 1.0);
    EXPECT_DOUBLE_EQ(SystemVolume::engineGain(false, 0.0), 1.0);
    // A tap hears programs untouched: the server's gain, kept to 0..1.
    EXPECT_DOUBLE_EQ(SystemVolume::engineGain(true, 0.125), 0.125);
    EXPECT_DOUBLE_EQ(SystemVolume::engineGain(true, 3.0), 1.0);
    EXPECT_DOUBLE_EQ(SystemVolume::engineGain(true, std::nan("")), 0.0);
}

TEST(ReportedLatency, SeedsOnlyWhatNobodySetByHand) {
    using ReportedLatency::seeded;
    // A person's measurement or a hand-set delay is never overruled.
    EXPECT_FALSE(seeded(30.0, 0, false, true, 0));
    EXPECT_FALSE(seeded(30.0, 0, false, false, 12));
    // Below the step worth correcting reads as 0; at it, it is taken up.
    EXPECT_FALSE(seeded(1.9, 0, false, false, 0));
    EXPECT_EQ(seeded(2.0, 0, false, false, 0), 2.0);
    EXPECT_EQ(seeded(1.9, 5.0, true, false, 0), 0.0);
    EXPECT_FALSE(seeded(30.0, 30.0, true, false, 0));
    // No report any more: a reported value is cleared, anything else kept.
    EXPECT_EQ(seeded(std::nullopt, 30.0, true, false, 0), 0.0);
    EXPECT_FALSE(seeded(std::nullopt, 30.0, false, false, 0));
    EXPECT_FALSE(seeded(std::nullopt, 0.0, true, false, 0));
}

}  // namespace
}  // namespace vt::devices
