#include <gtest/gtest.h>

#include "engine_fixture.h"

namespace {

constexpr uint32_t kBlock = 256;

class UntimedRender : public ::testing::Test {
  protected:
    void SetUp() override {
        e = make_engine();
        re_engine_set_gain(e.get(), 0, 1.0f);
        s = &e->slots[0];
    }
    // One device period: the capture side delivers what the slot consumes.
    std::vector<float> cycle(uint32_t n = kBlock) {
        write_ramp(e.get(), n);
        return render(e.get(), 0, n);
    }
    double written() const { return static_cast<double>(re_engine_frames_written(e.get())); }

    engine_ptr e;
    re_slot* s = nullptr;
};

TEST_F(UntimedRender, SilentUntilTheBaseLagAndOneBlockExist) {
    auto out = render(e.get(), 0, kBlock);
    EXPECT_EQ(re_engine_primed(e.get(), 0), 0);
    for (float v : out) ASSERT_EQ(v, 0.0f);

    write_ramp(e.get(), 4096 + kBlock - 1);
    render(e.get(), 0, kBlock);
    EXPECT_EQ(re_engine_primed(e.get(), 0), 0);

    write_ramp(e.get(), 1);
    out = render(e.get(), 0, kBlock);
    EXPECT_EQ(re_engine_primed(e.get(), 0), 1);
    EXPECT_NEAR(frame_of(out, 0), written() - 4096, 1e-3);
    EXPECT_NEAR(frame_of(out, kBlock - 1), written() - 4096 + kBlock - 1, 1e-3);
    // The slot fades in from silence over 240 frames.
    EXPECT_FLOAT_EQ(out[1], RE_RAMP_STEP);
    EXPECT_NEAR(out[2 * 239 + 1], 1.0f, 1e-5f);
    EXPECT_LT(out[2 * 238 + 1], 0.996f);
    EXPECT_EQ(out[2 * 240 + 1], 1.0f);
}

TEST_F(UntimedRender, LargeBlocksLockTwoAndAHalfBlocksBehind) {
    const uint32_t n = 2000;
    write_ramp(e.get(), 5000 + n);
    auto out = render(e.get(), 0, n);
    ASSERT_EQ(re_engine_primed(e.get(), 0), 1);
    EXPECT_NEAR(frame_of(out, 0), written() - 5000, 1e-3);
}

TEST_F(UntimedRender, DelayIsAddedToTheBaseLag) {
    re_engine_set_delay_ms(e.get(), 0, 250.0);
    EXPECT_DOUBLE_EQ(re_engine_delay_ms(e.get(), 0), 250.0);
    write_ramp(e.get(), 12000 + 4096 + kBlock);
    auto out = render(e.get(), 0, kBlock);
    EXPECT_NEAR(frame_of(out, 0), written() - 12000 - 4096, 1e-3);
    EXPECT_EQ(re_engine_delay_ms(e.get(), 20), 0.0);
}

TEST_F(UntimedRender, SteadyStateHoldsPositionWithoutCorrection) {
    write_ramp(e.get(), 8192);
    for (int i = 0; i < 50; ++i) cycle();
    EXPECT_EQ(re_engine_ppm(e.get(), 0), 0.0);
    EXPECT_EQ(re_engine_fill_err_ms(e.get(), 0), 0.0);
    EXPECT_DOUBLE_EQ(written() - s->read_pos, 4096.0 - kBlock);
}

TEST_F(UntimedRender, DelayChangeOfTenMillisecondsGlides) {
    write_ramp(e.get(), 8192);
    for (int i = 0; i < 10; ++i) cycle();
    re_engine_set_delay_ms(e.get(), 0, 10.0);  // exactly 480 frames
    const double before = s->read_pos;
    auto out = cycle();
    EXPECT_EQ(s->fade_left, 0u);
    EXPECT_EQ(s->delay_seen, 480.0);
    EXPECT_NEAR(re_engine_fill_err_ms(e.get(), 0), -10.0, 1e-9);
    EXPECT_LT(re_engine_ppm(e.get(), 0), -900.0);
    EXPECT_NEAR(frame_of(out, 0), before, 1e-3) << "no jump";
    // The rate loop walks there on its own, without ever jumping.
    for (int i = 0; i < 200; ++i) {
        cycle();
        ASSERT_EQ(s->fade_left, 0u);
    }
    EXPECT_GT(re_engine_fill_err_ms(e.get(), 0), -9.5);
    EXPECT_LT(re_engine_fill_err_ms(e.get(), 0), -5.0);
}

TEST_F(UntimedRender, DelayChangeJustOverTenMillisecondsCrossfades) {
    write_ramp(e.get(), 8192);
    for (int i = 0; i < 10; ++i) cycle();
    re_engine_set_delay_ms(e.get(), 0, 481.0 / 48.0);
    const double old_pos = s->read_pos;
    write_ramp(e.get(), kBlock);
    const double new_pos = written() - 4096 - 481;
    auto out = render(e.get(), 0, kBlock);
    EXPECT_EQ(s->fade_left, RE_FADE_FRAMES - kBlock);
    EXPECT_EQ(re_engine_ppm(e.get(), 0), 0.0);
    // Frame k blends the two positions with weight k / 512 on the new one.
    for (uint32_t k : {0u, 100u, 255u}) {
        const double w = static_cast<double>(k) / RE_FADE_FRAMES;
        EXPECT_NEAR(frame_of(out, k), (old_pos + k) + w * (new_pos - old_pos), 0.05) << k;
    }
    out = cycle();
    EXPECT_EQ(s->fade_left, 0u);
    out = cycle();
    EXPECT_NEAR(frame_of(out, 0), written() - 4096 - 481, 0.05);
}

TEST_F(UntimedRender, DelayBeyondHistoryWaitsThenLocksAtFullGain) {
    write_ramp(e.get(), 8192);
    for (int i = 0; i < 10; ++i) cycle();
    ASSERT_EQ(s->gain_now, 1.0f);
    re_engine_set_delay_ms(e.get(), 0, 1000.0);
    cycle();
    EXPECT_EQ(re_engine_primed(e.get(), 0), 0);
    EXPECT_EQ(s->locked, 0);
    while (written() < 48000 + 4096) {
        write_ramp(e.get(), kBlock);
        render(e.get(), 0, kBlock);
        ASSERT_EQ(re_engine_primed(e.get(), 0), 0);
    }
    write_ramp(e.get(), kBlock);
    auto out = render(e.get(), 0, kBlock);
    ASSERT_EQ(re_engine_primed(e.get(), 0), 1);
    EXPECT_NEAR(out[0], written() - 48000 - 4096, 1e-3) << "no fade in";
}

TEST_F(UntimedRender, TenSecondDelayFitsInTheRing) {
    re_engine_set_delay_ms(e.get(), 0, 10000.0);
    write_ramp(e.get(), 480000 + 4096 + kBlock);
    auto out = render(e.get(), 0, kBlock);
    ASSERT_EQ(re_engine_primed(e.get(), 0), 1);
    EXPECT_NEAR(frame_of(out, 0), written() - 480000 - 4096, 1e-3);
}

TEST_F(UntimedRender, UnderrunSilencesAndRelocksOnlyAfterNewAudio) {
    write_ramp(e.get(), 8192);
    for (int i = 0; i < 10; ++i) cycle();
    // The capture stops; the reader eats into its lag until it underruns.
    int blocks = 0;
    while (re_engine_primed(e.get(), 0) && blocks < 100) {
        render(e.get(), 0, kBlock);
        ++blocks;
    }
    ASSERT_EQ(re_engine_primed(e.get(), 0), 0);
    EXPECT_EQ(s->gain_now, 0.0f);
    EXPECT_EQ(s->resume_at, re_engine_frames_written(e.get()) + 1);
    render(e.get(), 0, kBlock);
    EXPECT_EQ(re_engine_primed(e.get(), 0), 0) << "history alone does not relock";

    auto out = cycle();
    ASSERT_EQ(re_engine_primed(e.get(), 0), 1);
    EXPECT_NEAR(frame_of(out, 0), written() - 4096, 1e-3);
    EXPECT_FLOAT_EQ(out[1], RE_RAMP_STEP);
}

TEST_F(UntimedRender, OverrunJumpsBackToTheTargetWithoutCrossfade) {
    write_ramp(e.get(), 8192);
    for (int i = 0; i < 10; ++i) cycle();
    write_ramp(e.get(), RE_RING_FRAMES);  // the reader stalled for 22 s
    auto out = render(e.get(), 0, kBlock);
    ASSERT_EQ(re_engine_primed(e.get(), 0), 1);
    EXPECT_EQ(s->fade_left, 0u);
    EXPECT_NEAR(frame_of(out, 0), written() - 4096, 0.2);
    EXPECT_EQ(re_engine_ppm(e.get(), 0), 0.0);
}

TEST_F(UntimedRender, LargeFillErrorUsesTheWideLimit) {
    write_ramp(e.get(), 8192);
    for (int i = 0; i < 10; ++i) cycle();
    write_ramp(e.get(), 3000);  // the reader is now 3000 frames too far behind
    cycle();
    EXPECT_NEAR(re_engine_ppm(e.get(), 0), 5000.0, 1e-6);
    EXPECT_EQ(s->integral, 0.0) << "no wind-up while limited";
    // Small errors are limited to 200 ppm.
    s->read_pos = written() + kBlock - 4096 - 50;
    cycle();
    EXPECT_NEAR(re_engine_ppm(e.get(), 0), 100.0, 1e-6);
    EXPECT_NE(s->integral, 0.0);
}

TEST_F(UntimedRender, EmptyBlockOnlyTouchesControlState) {
    write_ramp(e.get(), 8192);
    for (int i = 0; i < 10; ++i) cycle();
    const double pos = s->read_pos;
    re_engine_render(e.get(), 0, nullptr, 0);
    EXPECT_EQ(s->read_pos, pos);
    EXPECT_EQ(re_engine_primed(e.get(), 0), 1);
}

TEST_F(UntimedRender, ResetReaderFadesInAgainFromTheTarget) {
    write_ramp(e.get(), 8192);
    for (int i = 0; i < 10; ++i) cycle();
    re_engine_reset_reader(e.get(), 0);
    EXPECT_EQ(re_engine_primed(e.get(), 0), 0);
    EXPECT_EQ(s->locked, 1) << "render state belongs to the rendering thread";
    auto out = cycle();
    EXPECT_NEAR(frame_of(out, 0), written() - 4096, 1e-3);
    EXPECT_FLOAT_EQ(out[1], RE_RAMP_STEP);
}

}  // namespace
