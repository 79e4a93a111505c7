#include <gtest/gtest.h>

#include "engine_fixture.h"

namespace {

TEST(Scopes, EnvelopeCountsOnlyFramesThatExist) {
    auto e = make_engine();
    std::vector<float> out(4, -1.0f);
    re_engine_envelope(e.get(), out.data(), 4, 50);
    for (float v : out) EXPECT_EQ(v, 0.0f);

    write_const(e.get(), 100, 0.25f, -0.5f);
    write_const(e.get(), 10, 0.1f, 0.1f);
    re_engine_envelope(e.get(), out.data(), 4, 50);
    EXPECT_EQ(out[0], 0.0f);
    EXPECT_EQ(out[1], 0.5f);
    EXPECT_EQ(out[2], 0.5f);
    EXPECT_EQ(out[3], 0.5f) << "the newest stretch holds frames 60 to 109";

    re_engine_envelope(e.get(), out.data(), 4, 0);  // one frame a point
    EXPECT_EQ(out[3], 0.1f);
    EXPECT_EQ(out[0], 0.1f);
}

TEST(Scopes, EnvelopeLimitsItsSpanToTheRing) {
    auto e = make_engine();
    write_const(e.get(), RE_RING_FRAMES - 10, 0.0f, 0.0f);
    write_const(e.get(), 10, 0.75f, 0.0f);  // wrap not yet: newest at the end
    write_const(e.get(), 10, 0.5f, 0.0f);   // these land at the start of the ring
    std::vector<float> out(2, -1.0f);
    re_engine_envelope(e.get(), out.data(), 2, RE_RING_FRAMES);
    EXPECT_EQ(out[0], 0.0f);
    EXPECT_EQ(out[1], 0.75f);
    // Null engine, output or zero points do nothing.
    re_engine_envelope(nullptr, out.data(), 2, 1);
    re_engine_envelope(e.get(), nullptr, 2, 1);
    re_engine_envelope(e.get(), out.data(), 0, 1);
    EXPECT_EQ(out[1], 0.75f);
}

TEST(Scopes, RecentIsMonoEndingFramesBackAndZeroBeforeTime) {
    auto e = make_engine();
    write_ramp(e.get(), 100);
    std::vector<float> out(8, -1.0f);
    re_engine_recent(e.get(), out.data(), 4, 10);
    for (int k = 0; k < 4; ++k) EXPECT_EQ(out[k], (86.0f + k + 1.0f) * 0.5f);
    re_engine_recent(e.get(), out.data(), 8, 95);
    for (int k = 0; k < 3; ++k) EXPECT_EQ(out[k], 0.0f) << k;
    EXPECT_EQ(out[3], 0.5f);
    EXPECT_EQ(out[7], 2.5f);
}

TEST(Scopes, RecentClampsItsWindowToTheRing) {
    auto e = make_engine();
    write_ramp(e.get(), 50);
    std::vector<float> out(4, -1.0f);
    // However far back it is asked, the window ends inside the ring.
    re_engine_recent(e.get(), out.data(), 4, 0xFFFFFFFFu);
    for (float v : out) EXPECT_EQ(v, 0.0f);
}

}  // namespace
