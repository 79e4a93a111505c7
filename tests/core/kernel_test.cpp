#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "engine_fixture.h"

namespace {

double row_sum(const re_kernel* k, int row) {
    double sum = 0.0;
    for (int j = 0; j < k->taps; ++j) sum += re_kernel_rows(k)[row * k->taps + j];
    return sum;
}

TEST(Kernel, UnityTableServesEveryRatioAtOrBelowOne) {
    const re_kernel* unity = re_kernel_for(1.0);
    ASSERT_NE(unity, nullptr);
    EXPECT_EQ(unity->half, 32);
    EXPECT_EQ(unity->taps, 64);
    EXPECT_EQ(unity->cutoff_hz, 24000.0);
    EXPECT_EQ(re_kernel_for(0.5), unity);  // a 96 kHz device
    EXPECT_EQ(re_kernel_for(1.0000005), unity);
    EXPECT_EQ(re_kernel_for(0.0), unity);
    EXPECT_EQ(re_kernel_for(-3.0), unity);
}

TEST(Kernel, TableFor441IsLongerAndLowPassed) {
    const re_kernel* k = re_kernel_for(48000.0 / 44100.0);
    ASSERT_NE(k, nullptr);
    EXPECT_EQ(k->half, 70);
    EXPECT_EQ(k->taps, 140);
    const double expected = 22050.0 - 82.0 / (70 * 28.71415685381071) * 24000.0;
    EXPECT_NEAR(k->cutoff_hz, expected, 1e-9);
    EXPECT_EQ(re_kernel_for(48000.0 / 44100.0), k) << "cached, not rebuilt";
}

TEST(Kernel, EveryRowSumsToOneAndMirrorsItsPartner) {
    for (double ratio : {1.0, 48000.0 / 44100.0}) {
        const re_kernel* k = re_kernel_for(ratio);
        const float* rows = re_kernel_rows(k);
        for (int p = 0; p <= RE_PHASES; ++p) {
            ASSERT_NEAR(row_sum(k, p), 1.0, 2e-6) << "row " << p;
            // Row p at tap j is row 512 - p at the mirrored tap.
            for (int j = 0; j < k->taps; ++j) {
                ASSERT_EQ(rows[p * k->taps + j], rows[(RE_PHASES - p) * k->taps + k->taps - 1 - j]);
            }
        }
        // Row 512 is row 0 moved on by one whole frame.
        for (int j = 1; j < k->taps; ++j) {
            ASSERT_EQ(rows[RE_PHASES * k->taps + j], rows[j - 1]);
        }
    }
}

TEST(Kernel, UnityRowZeroIsAnImpulseAtTheCentreFrame) {
    const re_kernel* k = re_kernel_for(1.0);
    const float* row0 = re_kernel_rows(k);
    for (int j = 0; j < k->taps; ++j) {
        if (j == k->half - 1) {
            EXPECT_NEAR(row0[j], 1.0f, 1e-6f);
        } else {
            EXPECT_NEAR(row0[j], 0.0f, 1e-6f) << j;
        }
    }
}

TEST(Kernel, CacheStopsAtSixteenAndThenHandsOutTheNearest) {
    // Make sure the tables other tests use exist before the cache fills.
    const re_kernel* unity = re_kernel_for(1.0);
    const re_kernel* k441 = re_kernel_for(48000.0 / 44100.0);
    double key = 1.5;
    while (re_kernel_cached_count() < RE_MAX_KERNELS) {
        ASSERT_NE(re_kernel_for(key), nullptr);
        key += 0.01;
    }
    const int before = re_kernel_cached_count();
    EXPECT_EQ(before, RE_MAX_KERNELS);
    EXPECT_EQ(re_kernel_for(1.03), unity);  // nearer to 1.0 than to 1.0884
    EXPECT_EQ(re_kernel_for(1.0885), k441);
    EXPECT_EQ(re_kernel_cached_count(), before);
}

// A half-sample read of a 1 kHz sine through the unity table lands on the
// sine itself: a wrong centre tap or phase would be off by far more.
TEST(Kernel, HalfSampleReadFollowsASine) {
    auto e = make_engine();
    const double w = 2.0 * std::numbers::pi * 1000.0 / RE_RATE;
    std::vector<float> buf(2 * 8192);
    for (int f = 0; f < 8192; ++f) {
        buf[2 * f] = static_cast<float>(0.5 * std::sin(w * f));
        buf[2 * f + 1] = static_cast<float>(0.5 * std::cos(w * f));
    }
    re_engine_write(e.get(), buf.data(), 8192);
    for (double ratio : {1.0, 48000.0 / 44100.0}) {
        re_slot* s = &e->slots[0];
        s->read_pos = 1000.5;
        s->gain_now = 1.0f;
        std::vector<float> out(2 * 1000);
        re_render_frames(e.get(), s, re_kernel_for(ratio), out.data(), 1000, 1.0, 1.0f);
        double worst = 0.0;
        for (int f = 0; f < 1000; ++f) {
            const double pos = 1000.5 + f;
            worst = std::max(worst, std::fabs(out[2 * f] - 0.5 * std::sin(w * pos)));
            worst = std::max(worst, std::fabs(out[2 * f + 1] - 0.5 * std::cos(w * pos)));
        }
        EXPECT_LT(worst, 5e-5) << "ratio " << ratio;
    }
}

// The window that straddles the ring's end is read through the mask and
// must give what an unbroken window would.
TEST(Kernel, ReadingAcrossTheRingEndIsSeamless) {
    auto e = make_engine();
    write_ramp(e.get(), RE_RING_FRAMES + 4000);
    re_slot* s = &e->slots[0];
    s->read_pos = RE_RING_FRAMES - 100.25;
    s->gain_now = 1.0f;
    std::vector<float> out(2 * 200);
    re_render_frames(e.get(), s, re_kernel_for(1.0), out.data(), 200, 1.0, 1.0f);
    for (int f = 0; f < 200; ++f) {
        ASSERT_NEAR(out[2 * f], RE_RING_FRAMES - 100.25 + f, 0.07) << f;
        ASSERT_NEAR(out[2 * f + 1], 1.0f, 1e-5f);
    }
}

}  // namespace
