#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/eq_rt.h"
#include "engine_fixture.h"

namespace {

constexpr uint32_t kBlock = 480;

class FrameProduction : public ::testing::Test {
  protected:
    void SetUp() override { e = make_engine(); }
    void cycle_const(float l, float r, uint32_t n = kBlock) { write_const(e.get(), n, l, r); }

    engine_ptr e;
};

TEST_F(FrameProduction, TestNoiseIsTheSameForEveryReaderOfAFrame) {
    // Slot 1 reads 1000 frames later than slot 0 and slot 2 reads with it;
    // the ring itself is silent, so everything heard is the test noise.
    for (int32_t s : {0, 1, 2}) {
        re_engine_set_gain(e.get(), s, 1.0f);
        re_engine_set_test_gain(e.get(), s, 1.0f);
    }
    re_engine_set_delay_ms(e.get(), 1, 1000.0 / 48.0);
    re_engine_set_delay_ms(e.get(), 2, 1000.0 / 48.0);
    write_const(e.get(), 8192, 0.0f, 0.0f);

    std::vector<float> early;
    std::vector<float> late1;
    std::vector<float> late2;
    std::vector<float> buf(2 * kBlock);
    for (int b = 0; b < 120; ++b) {
        cycle_const(0.0f, 0.0f);
        re_engine_render(e.get(), 0, buf.data(), kBlock);
        early.insert(early.end(), buf.begin(), buf.end());
        re_engine_render(e.get(), 1, buf.data(), kBlock);
        late1.insert(late1.end(), buf.begin(), buf.end());
        re_engine_render(e.get(), 2, buf.data(), kBlock);
        late2.insert(late2.end(), buf.begin(), buf.end());
    }
    ASSERT_EQ(std::memcmp(late1.data(), late2.data(), late1.size() * sizeof(float)), 0);
    // Past the fade-in, slot 1's frame k is slot 0's frame k - 1000.
    for (size_t k = 1000 + 240; k < late1.size() / 2; ++k) {
        ASSERT_EQ(late1[2 * k], early[2 * (k - 1000)]) << k;
        ASSERT_EQ(late1[2 * k], late1[2 * k + 1]);
    }
    // Slot 0 locked 4096 frames behind the writer; ring frame f sounds for
    // 300 ms of every 500, at most 0.12 loud.
    const uint64_t first_frame = 8192 + kBlock - 4096;
    size_t inside = 0;
    size_t heard = 0;
    float loudest = 0.0f;
    for (size_t k = 240; k < early.size() / 2; ++k) {
        const uint64_t phase = (first_frame + k) % 24000;
        const float v = early[2 * k];
        if (phase >= 14400) {
            ASSERT_EQ(v, 0.0f) << k;
        } else if (phase >= 480 && phase < 13920) {
            ++inside;
            if (v != 0.0f) ++heard;
            loudest = std::max(loudest, std::fabs(v));
        }
    }
    EXPECT_GT(heard, inside * 99 / 100);
    EXPECT_LE(loudest, 0.12f);
    EXPECT_GT(loudest, 0.11f);
}

TEST_F(FrameProduction, GainAndMatrixRampOverTwoHundredFortyFrames) {
    re_engine_set_gain(e.get(), 0, 1.0f);
    write_const(e.get(), 8192, 0.5f, 0.25f);
    for (int b = 0; b < 5; ++b) {
        cycle_const(0.5f, 0.25f);
        render(e.get(), 0, kBlock);
    }
    // Swap the channels and halve the level.
    re_engine_set_mix(e.get(), 0, 0.0f, 1.0f, 1.0f, 0.0f);
    re_engine_set_gain(e.get(), 0, 0.5f);
    cycle_const(0.5f, 0.25f);
    auto out = render(e.get(), 0, kBlock);
    EXPECT_NEAR(out[2 * 239], 0.5f * 0.25f, 1e-6f);
    EXPECT_NEAR(out[2 * 239 + 1], 0.5f * 0.5f, 1e-6f);
    EXPECT_GT(out[2 * 100], 0.5f * 0.25f + 0.01f) << "still on its way";
    EXPECT_NEAR(out[2 * 479], 0.125f, 1e-6f);
}

TEST_F(FrameProduction, MatrixIsClampedAndAResetStartsAtItAtOnce) {
    re_engine_set_gain(e.get(), 0, 1.0f);
    re_engine_set_mix(e.get(), 0, 5.0f, -1.0f, 0.5f, 0.5f);
    re_engine_set_test_gain(e.get(), 0, 9.0f);
    EXPECT_EQ(e->slots[0].mix[0].load(), 2.0f);
    EXPECT_EQ(e->slots[0].mix[1].load(), 0.0f);
    EXPECT_EQ(e->slots[0].test_gain.load(), 2.0f);
    re_engine_set_test_gain(e.get(), 0, 0.0f);
    re_engine_reset_reader(e.get(), 0);
    write_const(e.get(), 8192, 0.25f, 0.5f);
    auto out = render(e.get(), 0, kBlock);
    // Only the gain fades in; the matrix is already in force.
    EXPECT_NEAR(out[2 * 300], 0.5f, 1e-6f);
    EXPECT_NEAR(out[2 * 300 + 1], 0.375f, 1e-6f);
}

TEST_F(FrameProduction, PeaksAreRaisedPerBlockAndClearedByTaking) {
    re_engine_set_gain(e.get(), 0, 1.0f);
    write_const(e.get(), 8192, 0.5f, -0.75f);
    for (int b = 0; b < 3; ++b) {
        cycle_const(0.5f, -0.75f);
        render(e.get(), 0, kBlock);
    }
    float l = 0;
    float r = 0;
    re_engine_take_peak(e.get(), 0, &l, &r);
    EXPECT_NEAR(l, 0.5f, 1e-6f);
    EXPECT_NEAR(r, 0.75f, 1e-6f);
    re_engine_take_peak(e.get(), 0, &l, &r);
    EXPECT_EQ(l, 0.0f);
    EXPECT_EQ(r, 0.0f);
}

TEST_F(FrameProduction, ClipLatchesOnlyTheChainsThatWereWorking) {
    re_engine_set_gain(e.get(), 0, 1.0f);
    re_engine_set_gain(e.get(), 1, 2.0f);
    write_const(e.get(), 8192, 0.9f, 0.9f);
    // Slot 0: its own equaliser lifts 6 dB, driving past full scale.
    re_engine_set_eq_preamp_db(e.get(), 0, 6.0);
    re_engine_set_eq_enabled(e.get(), 0, true);
    std::vector<float> out;
    for (int b = 0; b < 3; ++b) {
        cycle_const(0.9f, 0.9f);
        out = render(e.get(), 0, kBlock);
        render(e.get(), 1, kBlock);  // clips through gain alone, no equaliser
    }
    EXPECT_GT(out[2 * 479], 1.7f) << "nothing is limited";
    EXPECT_EQ(re_engine_take_eq_clip(e.get(), 0), 1);
    EXPECT_EQ(re_engine_take_eq_clip(e.get(), 0), 0);
    EXPECT_EQ(re_engine_take_eq_clip(e.get(), 1), 0);
    EXPECT_EQ(re_engine_take_master_eq_clip(e.get()), 0);

    re_engine_set_master_eq_preamp_db(e.get(), -1.0);
    re_engine_set_master_eq_enabled(e.get(), true);
    cycle_const(0.9f, 0.9f);
    render(e.get(), 1, kBlock);
    EXPECT_EQ(re_engine_take_master_eq_clip(e.get()), 1);
    EXPECT_EQ(re_engine_take_master_eq_clip(e.get()), 0);
    EXPECT_EQ(re_engine_take_eq_clip(e.get(), 1), 0);
}

TEST_F(FrameProduction, EqualiserSettersIgnoreSlotsOutOfRange) {
    re_engine_set_eq_band(e.get(), 20, 0, RE_EQ_PEAK, 1000, 6, 1);
    re_engine_set_eq_enabled(e.get(), -1, true);
    re_engine_set_eq_preamp_db(e.get(), 20, 6);
    EXPECT_EQ(re_engine_take_eq_clip(e.get(), 20), 0);
    re_engine_set_master_eq_enabled(e.get(), true);
    for (const re_slot& s : e->slots) EXPECT_EQ(s.master_eq.enabled.load(), 1);
}

TEST_F(FrameProduction, BothEqualisersShapeTheSlot) {
    // A row shelf that cuts and a master shelf that lifts by as much: at DC
    // the first is heard alone, then the two cancel.
    re_engine_set_gain(e.get(), 0, 1.0f);
    re_engine_set_eq_band(e.get(), 0, 0, RE_EQ_LOW_SHELF, 2000.0, -12.0, 0.707);
    re_engine_set_eq_enabled(e.get(), 0, true);
    write_const(e.get(), 8192, 0.5f, 0.5f);
    std::vector<float> out;
    for (int b = 0; b < 40; ++b) {
        cycle_const(0.5f, 0.5f);
        out = render(e.get(), 0, kBlock);
    }
    EXPECT_NEAR(out[0], 0.5f * std::pow(10.0f, -12.0f / 20.0f), 1e-3f);
    re_engine_set_master_eq_band(e.get(), 0, RE_EQ_LOW_SHELF, 2000.0, 12.0, 0.707);
    re_engine_set_master_eq_enabled(e.get(), true);
    for (int b = 0; b < 40; ++b) {
        cycle_const(0.5f, 0.5f);
        out = render(e.get(), 0, kBlock);
    }
    EXPECT_NEAR(out[0], 0.5f, 1e-3f);
}

}  // namespace
