#include <gtest/gtest.h>

#include "engine_fixture.h"

namespace {

TEST(Scopes, EnvelopeCountsOnlyFramesThatExist) {
    auto e = make_engine();
    std::vector<float> out(4, -1.0f);
    re_engine_envelope(e.get(), out.data(), 4, 50);
    EXPECT_EQ(out, std::vector<float>(4, 0.0f));
    write_const(e.get(), 100, 0.25f, -0.5f);
    write_const(e.get(), 10, 0.1f, 0.1f);
    re_engine_envelope(e.get(), out.data(), 4, 50);  // frames -90 to 109
    EXPECT_EQ(out, (std::vector<float>{0.0f, 0.5f, 0.5f, 0.5f}));
    re_engine_envelope(e.get(), out.data(), 4, 0);  // one frame a point
    EXPECT_EQ(out, std::vector<float>(4, 0.1f));
    // However long the stretches asked for, together they span one ring.
    write_const(e.get(), RE_RING_FRAMES, 0.0f, 0.0f);
    write_const(e.get(), 20, 0.75f, 0.0f);
    re_engine_envelope(e.get(), out.data(), 2, RE_RING_FRAMES);
    EXPECT_EQ(out[0], 0.0f);
    EXPECT_EQ(out[1], 0.75f);
}

TEST(Scopes, RecentIsMonoEndingFramesBackAndZeroBeforeTime) {
    auto e = make_engine();
    write_ramp(e.get(), 100);
    std::vector<float> out(8, -1.0f);
    re_engine_recent(e.get(), out.data(), 4, 10);  // frames 86 to 89
    EXPECT_EQ(out[0], 43.5f);
    EXPECT_EQ(out[3], 45.0f);
    re_engine_recent(e.get(), out.data(), 8, 95);  // frames -3 to 4
    EXPECT_EQ(out, (std::vector<float>{0, 0, 0, 0.5f, 1, 1.5f, 2, 2.5f}));
    re_engine_recent(e.get(), out.data(), 8, 0xFFFFFFFFu);
    EXPECT_EQ(out, std::vector<float>(8, 0.0f));
}

}  // namespace
