#include <gtest/gtest.h>

#include <cmath>

#include "engine_fixture.h"

namespace {

constexpr uint32_t kBlock = 480;  // 10 ms at a 48 kHz device

// A device that plays each block `latency_sec` after the newest captured
// frame and asks for it `ahead_sec` before that.
class TimedRender : public ::testing::Test {
  protected:
    void SetUp() override {
        e = make_engine();
        re_engine_set_gain(e.get(), 0, 1.0f);
        s = &e->slots[0];
        cap.e = e.get();
        for (int i = 0; i < 60; ++i) cap.block(kBlock);
    }
    std::vector<float> cycle(double ahead_sec = 0.005, bool stamped = true) {
        cap.block(kBlock);
        // The device's clock is the host clock, whatever the capture stamps say.
        const double present = cap.start_sec + written() / RE_RATE + latency_sec;
        return render_timed(e.get(), 0, kBlock, stamped ? present : 0.0, present - ahead_sec);
    }
    double written() const { return static_cast<double>(re_engine_frames_written(e.get())); }
    // The ring frame that should be heard at the start of the next block.
    double expected_frame() const {
        return written() + latency_sec * RE_RATE - 4096 - s->delay_frames - s->late_floor;
    }

    engine_ptr e;
    re_slot* s = nullptr;
    capture_sim cap{nullptr};
    double latency_sec = 0.010;
};

TEST_F(TimedRender, PlaysEachFrameAtItsCaptureTimePlusTheBaseLag) {
    auto out = cycle();
    ASSERT_EQ(re_engine_primed(e.get(), 0), 1);
    EXPECT_EQ(re_engine_timed(e.get(), 0), 1);
    EXPECT_NEAR(frame_of(out, 0), written() + 480 - 4096, 1e-3);
    for (int i = 0; i < 50; ++i) {
        const double expect = expected_frame();
        out = cycle();
        ASSERT_NEAR(frame_of(out, 0), expect + kBlock, 1e-3);
    }
    EXPECT_NEAR(re_engine_ppm(e.get(), 0), 0.0, 1e-3);
}

TEST_F(TimedRender, FollowsTheDeviceLatencyRatherThanTheFill) {
    latency_sec = 0.040;
    re_engine_set_delay_ms(e.get(), 0, 20.0);
    auto out = cycle();
    EXPECT_NEAR(frame_of(out, 0), written() + 0.040 * RE_RATE - 4096 - 960, 1e-3);
}

TEST_F(TimedRender, WaitsForHistoryBeforeLocking) {
    re_engine_reset(e.get());
    cap.block(kBlock);
    auto out = cycle();
    EXPECT_EQ(re_engine_primed(e.get(), 0), 0);
    EXPECT_EQ(re_engine_timed(e.get(), 0), 1);
    for (float v : out) ASSERT_EQ(v, 0.0f);
}

TEST_F(TimedRender, CoastsForOneSecondThenHandsOverToTheFillLoop) {
    for (int i = 0; i < 5; ++i) cycle();
    // The device stops stamping its blocks: 48000 frames are carried over.
    std::vector<float> out;
    for (int i = 0; i < 100; ++i) {
        const double expect = expected_frame();
        out = cycle(0.005, false);
        ASSERT_EQ(re_engine_timed(e.get(), 0), 1) << i;
        ASSERT_NEAR(frame_of(out, 0), expect + kBlock, 1e-3) << i;
    }
    const double last = frame_of(out, kBlock - 1);
    out = cycle(0.005, false);
    EXPECT_EQ(re_engine_timed(e.get(), 0), 0);
    EXPECT_EQ(re_engine_primed(e.get(), 0), 1);
    EXPECT_EQ(s->fade_left, 0u);
    EXPECT_NEAR(frame_of(out, 0), last + 1.0, 0.01) << "same read position, no jump";
    // A stamp restarts the timed path where the clock says.
    out = cycle();
    EXPECT_EQ(re_engine_timed(e.get(), 0), 1);
}

TEST_F(TimedRender, SmallCaptureRebaseIsFollowedBySpeed) {
    for (int i = 0; i < 5; ++i) cycle();
    const uint32_t generation = e->rebase_count;
    cap.offset_sec += 0.005;  // the capture stamps move 5 ms later
    auto out = cycle();
    ASSERT_EQ(e->rebase_count, generation + 1);
    EXPECT_EQ(s->slewing, 1);
    EXPECT_EQ(s->fade_left, 0u);
    EXPECT_NEAR(re_engine_fill_err_ms(e.get(), 0), -5.0, 0.01);
    EXPECT_NEAR(re_engine_ppm(e.get(), 0), -4800.0, 1.0);
    for (int i = 0; i < 300; ++i) {
        cycle();
        ASSERT_EQ(s->fade_left, 0u);
        ASSERT_EQ(re_engine_primed(e.get(), 0), 1);
    }
    EXPECT_EQ(s->slewing, 0) << "ends once within 2 ms";
    EXPECT_GT(re_engine_fill_err_ms(e.get(), 0), -2.0);
}

TEST_F(TimedRender, LargeCaptureRebaseCrossfades) {
    for (int i = 0; i < 5; ++i) cycle();
    cap.offset_sec += 0.200;
    const double old_next = s->read_pos;
    auto out = cycle();
    EXPECT_EQ(s->slewing, 0);
    EXPECT_EQ(s->fade_left, RE_FADE_FRAMES - kBlock);
    EXPECT_NEAR(frame_of(out, 0), old_next, 1e-3);
    EXPECT_NEAR(frame_of(out, kBlock - 1),
                (old_next + kBlock - 1) + (kBlock - 1.0) / RE_FADE_FRAMES * -9600.0, 0.05);
}

TEST_F(TimedRender, LatenessRisesAfterEightBlocksAndStays) {
    for (int i = 0; i < 5; ++i) cycle();
    // Asked 80 ms ahead: the base lag no longer covers the device's buffer.
    const double ahead = 0.080;
    const double need = kBlock * 1.005 + 32 + 2;
    const double candidate = ahead * RE_RATE + need + kBlock + 256 - 4096;
    for (int i = 0; i < 7; ++i) cycle(ahead);
    EXPECT_EQ(re_engine_late_ms(e.get(), 0), 0.0);
    cycle(0.005);  // one calm block starts the count again
    for (int i = 0; i < 7; ++i) cycle(ahead);
    EXPECT_EQ(re_engine_late_ms(e.get(), 0), 0.0);
    cycle(ahead);
    const double late_frames = std::ceil(candidate / 48.0) * 48.0;
    EXPECT_DOUBLE_EQ(re_engine_late_ms(e.get(), 0), late_frames / 48.0);
    EXPECT_EQ(s->fade_left, RE_FADE_FRAMES - kBlock) << "takes effect in the same block";
    for (int i = 0; i < 20; ++i) cycle(0.005);
    EXPECT_DOUBLE_EQ(re_engine_late_ms(e.get(), 0), late_frames / 48.0);
    auto out = cycle(0.005);
    EXPECT_NEAR(frame_of(out, 0), written() + 480 - 4096 - late_frames, 0.05);

    re_engine_reset_reader(e.get(), 0);
    cycle();
    EXPECT_EQ(re_engine_late_ms(e.get(), 0), 0.0);
}

TEST_F(TimedRender, ReaderTooFarBehindJumpsAndFadesIn) {
    for (int i = 0; i < 5; ++i) cycle();
    // The rendering thread stalled for longer than the ring holds.
    for (int i = 0; i < 2200; ++i) cap.block(kBlock);
    auto out = cycle();
    ASSERT_EQ(re_engine_primed(e.get(), 0), 1);
    EXPECT_EQ(s->fade_left, 0u);
    EXPECT_FLOAT_EQ(out[1], RE_RAMP_STEP);
    EXPECT_NEAR(frame_of(out, 0), written() + 480 - 4096, 0.2);
}

TEST_F(TimedRender, AskingForTheFutureUnderruns) {
    for (int i = 0; i < 5; ++i) cycle();
    latency_sec = 0.200;  // 9600 frames past the newest capture: not written yet
    cycle();
    EXPECT_EQ(re_engine_primed(e.get(), 0), 0);
    EXPECT_EQ(s->locked, 0);
    EXPECT_EQ(s->resume_at, re_engine_frames_written(e.get()) + 1);
}

}  // namespace
