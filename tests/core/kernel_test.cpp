#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "engine_fixture.h"

namespace {

constexpr double k441 = 48000.0 / 44100.0;

TEST(Kernel, SizesCutoffsAndSharing) {
    const re_kernel* unity = re_kernel_for(1.0);
    ASSERT_NE(unity, nullptr);
    EXPECT_EQ(unity->taps, 64);
    EXPECT_EQ(unity->cutoff_hz, 24000.0);
    for (double r : {0.5, 1.0000005, 0.0, -3.0}) EXPECT_EQ(re_kernel_for(r), unity) << r;
    const re_kernel* k = re_kernel_for(k441);
    EXPECT_EQ(k->half, 70);
    EXPECT_EQ(k->taps, 140);
    EXPECT_NEAR(k->cutoff_hz, 22050.0 - 82.0 / (70 * 28.71415685381071) * 24000.0, 1e-9);
    EXPECT_EQ(re_kernel_for(k441), k);
}

TEST(Kernel, RowsSumToOneMirrorAndStepByOneFrame) {
    for (const re_kernel* k : {re_kernel_for(1.0), re_kernel_for(k441)}) {
        const int n = k->taps;
        const float* c = re_kernel_rows(k);
        for (int p = 0; p <= RE_PHASES; ++p) {
            double sum = 0.0;
            for (int j = 0; j < n; ++j) {
                sum += c[p * n + j];
                ASSERT_EQ(c[p * n + j], c[(RE_PHASES - p) * n + n - 1 - j]) << p << " " << j;
            }
            ASSERT_NEAR(sum, 1.0, 2e-6) << p;
        }
        for (int j = 1; j < n; ++j) ASSERT_EQ(c[RE_PHASES * n + j], c[j - 1]);
    }
    EXPECT_NEAR(re_kernel_rows(re_kernel_for(1.0))[31], 1.0f, 1e-6f) << "row 0 is an impulse";
}

TEST(Kernel, CacheStopsAtSixteenAndThenHandsOutTheNearest) {
    const re_kernel* unity = re_kernel_for(1.0);
    const re_kernel* k = re_kernel_for(k441);
    for (double key = 1.5; re_kernel_cached_count() < RE_MAX_KERNELS; key += 0.01) {
        ASSERT_NE(re_kernel_for(key), nullptr);
    }
    EXPECT_EQ(re_kernel_for(1.03), unity);
    EXPECT_EQ(re_kernel_for(1.0885), k);
    EXPECT_EQ(re_kernel_cached_count(), RE_MAX_KERNELS);
}

// Reading between frames follows a sine closely (a wrong centre tap or
// phase would miss by far more), also where the window wraps the ring.
TEST(Kernel, FractionalReadsFollowTheSignalAcrossTheRingEnd) {
    auto e = make_engine();
    const double w = 2.0 * std::numbers::pi * 1000.0 / RE_RATE;
    const uint32_t frames = RE_RING_FRAMES + 2000;
    std::vector<float> buf(2 * frames);
    for (uint32_t f = 0; f < frames; ++f) {
        buf[2 * f] = static_cast<float>(0.5 * std::sin(w * f));
        buf[2 * f + 1] = static_cast<float>(0.5 * std::cos(w * f));
    }
    re_engine_write(e.get(), buf.data(), frames);
    for (double ratio : {1.0, k441}) {
        re_slot* s = &e->slots[0];
        s->read_pos = RE_RING_FRAMES - 300.5;
        s->gain_now = 1.0f;
        std::vector<float> out(2 * 600);
        re_render_frames(e.get(), s, re_kernel_for(ratio), out.data(), 600, 1.0, 1.0f);
        for (int f = 0; f < 600; ++f) {
            const double pos = RE_RING_FRAMES - 300.5 + f;
            ASSERT_NEAR(out[2 * f], 0.5 * std::sin(w * pos), 5e-5) << ratio << " " << f;
            ASSERT_NEAR(out[2 * f + 1], 0.5 * std::cos(w * pos), 5e-5) << ratio << " " << f;
        }
    }
}

}  // namespace
