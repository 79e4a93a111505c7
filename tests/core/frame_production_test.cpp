#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "engine_fixture.h"

namespace {

constexpr uint32_t kBlock = 480;

std::vector<float> cycle(re_engine* e, int32_t slot, float l = 0.5f, float r = 0.25f) {
    write_const(e, kBlock, l, r);
    return render(e, slot, kBlock);
}

TEST(FrameProduction, TestNoiseIsTheSameForEveryReaderOfAFrame) {
    auto e = make_engine();
    // Slots 1 and 2 read 1000 frames behind slot 0 from a silent ring.
    for (int32_t s : {0, 1, 2}) {
        re_engine_set_gain(e.get(), s, 1.0f);
        re_engine_set_test_gain(e.get(), s, 1.0f);
        re_engine_set_delay_ms(e.get(), s, s == 0 ? 0.0 : 1000.0 / 48.0);
    }
    write_const(e.get(), 8192, 0.0f, 0.0f);
    std::vector<float> heard[3];
    for (int b = 0; b < 120; ++b) {
        write_const(e.get(), kBlock, 0.0f, 0.0f);
        for (int32_t s : {0, 1, 2}) {
            auto out = render(e.get(), s, kBlock);
            heard[s].insert(heard[s].end(), out.begin(), out.end());
        }
    }
    ASSERT_EQ(heard[1], heard[2]);
    const uint64_t first = 8192 + kBlock - 4096;  // slot 0's first ring frame
    size_t inside = 0;
    size_t sounding = 0;
    float loudest = 0.0f;
    for (size_t k = 240; k < heard[0].size() / 2; ++k) {
        const float v = heard[0][2 * k];
        ASSERT_EQ(v, heard[0][2 * k + 1]);
        if (k >= 1000 + 240) {
            ASSERT_EQ(heard[1][2 * k], heard[0][2 * (k - 1000)]) << k;
        }
        const uint64_t phase = (first + k) % 24000;  // 300 ms on, 200 ms off
        if (phase >= 14400) {
            ASSERT_EQ(v, 0.0f) << k;
        }
        if (phase >= 480 && phase < 13920) {
            ++inside;
            sounding += v != 0.0f;
            loudest = std::max(loudest, std::fabs(v));
        }
    }
    EXPECT_GT(sounding, inside * 99 / 100);
    EXPECT_LE(loudest, 0.12f);
    EXPECT_GT(loudest, 0.11f);
}

TEST(FrameProduction, GainAndMatrixRampOverTwoHundredFortyFrames) {
    auto e = make_engine();
    re_engine_set_gain(e.get(), 0, 1.0f);
    write_const(e.get(), 8192, 0.5f, 0.25f);
    for (int b = 0; b < 5; ++b) cycle(e.get(), 0);
    re_engine_set_mix(e.get(), 0, 0.0f, 1.0f, 1.0f, 0.0f);  // swap channels
    re_engine_set_gain(e.get(), 0, 0.5f);
    auto out = cycle(e.get(), 0);
    EXPECT_GT(out[2 * 100], 0.135f) << "still on its way";
    EXPECT_NEAR(out[2 * 239], 0.125f, 1e-6f);
    EXPECT_NEAR(out[2 * 239 + 1], 0.25f, 1e-6f);
    float l = 0;
    float r = 0;
    re_engine_take_peak(e.get(), 0, &l, &r);
    EXPECT_FLOAT_EQ(l, 0.5f) << "largest of the blocks since the last take";
    re_engine_take_peak(e.get(), 0, &l, &r);
    EXPECT_EQ(l + r, 0.0f);
    // A reset slot starts at its matrix at once and only fades the gain in.
    re_engine_reset_reader(e.get(), 0);
    out = cycle(e.get(), 0);
    EXPECT_NEAR(out[2 * 60 + 1] / out[2 * 60], 2.0f, 1e-5f);
}

TEST(FrameProduction, ClipLatchesOnlyTheChainsThatAreWorking) {
    auto e = make_engine();
    re_engine_set_gain(e.get(), 0, 1.0f);
    re_engine_set_gain(e.get(), 1, 2.0f);  // clips through gain alone
    re_engine_set_eq_preamp_db(e.get(), 0, 6.0);
    re_engine_set_eq_enabled(e.get(), 0, true);
    write_const(e.get(), 8192, 0.9f, 0.9f);
    std::vector<float> out;
    for (int b = 0; b < 3; ++b) {
        out = cycle(e.get(), 0, 0.9f, 0.9f);
        render(e.get(), 1, kBlock);
    }
    EXPECT_GT(out[2 * 479], 1.7f) << "nothing is limited";
    EXPECT_EQ(re_engine_take_eq_clip(e.get(), 0), 1);
    EXPECT_EQ(re_engine_take_eq_clip(e.get(), 0), 0);
    EXPECT_EQ(re_engine_take_eq_clip(e.get(), 1), 0);
    EXPECT_EQ(re_engine_take_master_eq_clip(e.get()), 0);
    re_engine_set_master_eq_preamp_db(e.get(), -1.0);
    re_engine_set_master_eq_enabled(e.get(), true);
    cycle(e.get(), 1, 0.9f, 0.9f);
    EXPECT_EQ(re_engine_take_master_eq_clip(e.get()), 1);
    EXPECT_EQ(re_engine_take_master_eq_clip(e.get()), 0);
    EXPECT_EQ(re_engine_take_eq_clip(e.get(), 20), 0);
}

}  // namespace
