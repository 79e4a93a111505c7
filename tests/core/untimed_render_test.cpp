#include <gtest/gtest.h>

#include <cmath>

#include "engine_fixture.h"

namespace {

constexpr uint32_t kBlock = 256;

class UntimedRender : public ::testing::Test {
  protected:
    void SetUp() override { re_engine_set_gain(e.get(), 0, 1.0f); }
    // One device period in which the capture delivers what the slot reads.
    std::vector<float> cycle(uint32_t n = kBlock) {
        write_ramp(e.get(), n);
        return render(e.get(), 0, n);
    }
    void settle() {
        write_ramp(e.get(), 8192);
        for (int i = 0; i < 10; ++i) cycle();
    }
    double lag() const { return written(e.get()) - s->read_pos; }
    uint8_t primed() const { return re_engine_primed(e.get(), 0); }

    engine_ptr e = make_engine();
    re_slot* s = &e->slots[0];
};

TEST_F(UntimedRender, LocksOnlyOnceTheBaseLagAndABlockExist) {
    EXPECT_EQ(render(e.get(), 0, kBlock), std::vector<float>(2 * kBlock, 0.0f));
    write_ramp(e.get(), 4096 + kBlock - 1);
    render(e.get(), 0, kBlock);
    EXPECT_EQ(primed(), 0);
    write_ramp(e.get(), 1);
    auto out = render(e.get(), 0, kBlock);
    ASSERT_EQ(primed(), 1);
    EXPECT_EQ(re_engine_starved_frames(e.get(), 0), 0u) << "waiting to lock on is no starving";
    EXPECT_NEAR(frame_of(out, 0), written(e.get()) - 4096, 1e-3);
    EXPECT_FLOAT_EQ(out[1], RE_RAMP_STEP) << "fades in";
    EXPECT_EQ(out[2 * 240 + 1], 1.0f);
    for (int i = 0; i < 50; ++i) cycle();
    EXPECT_EQ(re_engine_ppm(e.get(), 0), 0.0);
    EXPECT_EQ(lag(), 4096.0 - kBlock);

    // Blocks larger than the base lag allows sit 2.5 blocks behind.
    re_engine_reset_reader(e.get(), 0);
    write_ramp(e.get(), 2000);
    out = render(e.get(), 0, 2000);
    EXPECT_NEAR(frame_of(out, 0), written(e.get()) - 5000, 1e-3);
}

TEST_F(UntimedRender, TenSecondDelayFitsInTheRing) {
    re_engine_set_delay_ms(e.get(), 0, 10000.0);
    EXPECT_EQ(re_engine_delay_ms(e.get(), 0), 10000.0);
    write_ramp(e.get(), 480000 + 4096 + kBlock);
    auto out = render(e.get(), 0, kBlock);
    EXPECT_NEAR(frame_of(out, 0), written(e.get()) - 480000 - 4096, 1e-3);
}

TEST_F(UntimedRender, TenMillisecondDelayChangeGlides) {
    settle();
    const double before = s->read_pos;
    re_engine_set_delay_ms(e.get(), 0, 10.0);  // 480 frames
    auto out = cycle();
    EXPECT_NEAR(frame_of(out, 0), before, 1e-3) << "no jump";
    EXPECT_NEAR(re_engine_fill_err_ms(e.get(), 0), -10.0, 1e-9);
    EXPECT_NEAR(re_engine_ppm(e.get(), 0), -960.0, 1e-6);
    for (int i = 0; i < 200; ++i) {
        cycle();
        ASSERT_EQ(s->fade_left, 0u);
    }
    EXPECT_GT(re_engine_fill_err_ms(e.get(), 0), -9.5) << "walking there";
}

TEST_F(UntimedRender, LargerDelayChangeCrossfadesOver512Frames) {
    settle();
    re_engine_set_delay_ms(e.get(), 0, 481.0 / 48.0);
    const double from = s->read_pos;
    const double to = written(e.get()) + kBlock - 4096 - 481;
    auto out = cycle();
    EXPECT_EQ(re_engine_ppm(e.get(), 0), 0.0);
    for (uint32_t k : {0u, 100u, 255u}) {
        EXPECT_NEAR(frame_of(out, k), from + k + k / 512.0 * (to - from), 0.05) << k;
    }
    cycle();
    EXPECT_EQ(s->fade_left, 0u);
    out = cycle();
    EXPECT_NEAR(frame_of(out, 0), written(e.get()) - 4096 - 481, 0.05);
}

TEST_F(UntimedRender, DelayBeyondHistoryWaitsThenLocksAtFullGain) {
    settle();
    re_engine_set_delay_ms(e.get(), 0, 1000.0);
    while (written(e.get()) < 48000 + 4096) {
        cycle();
        ASSERT_EQ(primed(), 0);
    }
    auto out = cycle();
    ASSERT_EQ(primed(), 1);
    EXPECT_NEAR(out[0], written(e.get()) - 48000 - 4096, 1e-3) << "no fade in";
}

TEST_F(UntimedRender, UnderrunSilencesUntilNewAudioArrives) {
    settle();
    for (int i = 0; i < 100 && primed(); ++i) render(e.get(), 0, kBlock);
    ASSERT_EQ(primed(), 0);
    EXPECT_EQ(re_engine_starved_frames(e.get(), 0), kBlock);
    EXPECT_EQ(s->resume_at, re_engine_frames_written(e.get()) + 1);
    render(e.get(), 0, kBlock);
    EXPECT_EQ(primed(), 0) << "history alone does not relock";
    EXPECT_EQ(re_engine_starved_frames(e.get(), 0), 2 * kBlock) << "every silent block counts";
    auto out = cycle();
    ASSERT_EQ(primed(), 1);
    EXPECT_NEAR(frame_of(out, 0), written(e.get()) - 4096, 1e-3);
    EXPECT_FLOAT_EQ(out[1], RE_RAMP_STEP);
    EXPECT_EQ(re_engine_starved_frames(e.get(), 0), 2 * kBlock) << "sounding again ends it";

    // A reader started afresh waits for its audio without starving.
    re_engine_reset_reader(e.get(), 0);
    for (int i = 0; i < 3; ++i) render(e.get(), 0, kBlock);
    EXPECT_EQ(re_engine_starved_frames(e.get(), 0), 2 * kBlock);
}

TEST_F(UntimedRender, OverrunJumpsBackWithoutCrossfade) {
    settle();
    write_ramp(e.get(), RE_RING_FRAMES);
    auto out = render(e.get(), 0, kBlock);
    EXPECT_EQ(s->fade_left, 0u);
    EXPECT_NEAR(frame_of(out, 0), written(e.get()) - 4096, 0.2);
}

TEST_F(UntimedRender, RateLoopLimitsAndIntegrator) {
    settle();
    write_ramp(e.get(), 3000);
    cycle();
    EXPECT_NEAR(re_engine_ppm(e.get(), 0), 5000.0, 1e-6);
    EXPECT_EQ(s->integral, 0.0) << "no wind-up while limited";
    s->read_pos = written(e.get()) + kBlock - 4096 - 50;
    cycle();
    EXPECT_NEAR(re_engine_ppm(e.get(), 0), 100.0, 1e-6);
    // 0.09375 ppm per frame of error and second of ring audio.
    EXPECT_NEAR(s->integral, 50 * 0.09375e-6 * kBlock / RE_RATE, 1e-15);
}

TEST_F(UntimedRender, ValuesThatAreNotNumbersGiveSilence) {
    settle();
    re_engine_set_delay_ms(e.get(), 0, std::nan(""));
    EXPECT_EQ(cycle(), std::vector<float>(2 * kBlock, 0.0f));
    re_engine_set_delay_ms(e.get(), 0, 0.0);
    re_engine_set_base_ratio(e.get(), 0, INFINITY);
    EXPECT_EQ(s->kernel.load()->taps, 64) << "the nearest table stays";
    EXPECT_EQ(render(e.get(), 0, kBlock, 1.0, 1.0), std::vector<float>(2 * kBlock, 0.0f));
    re_engine_set_base_ratio(e.get(), 0, 1.0);
    EXPECT_EQ(cycle()[2 * 255 + 1], 1.0f);
}

}  // namespace
