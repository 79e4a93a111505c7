#include <gtest/gtest.h>

#include <cmath>

#include "engine_fixture.h"

namespace {

constexpr uint32_t kBlock = 480;  // 10 ms at a 48 kHz device
constexpr double kT0 = 100.0;

// Each period the capture delivers a block stamped kT0 + frame / 48000 +
// capture_shift, and the device asks for a block that it will play
// `latency` after the newest captured frame, `ahead` seconds from now.
class TimedRender : public ::testing::Test {
  protected:
    void SetUp() override {
        re_engine_set_gain(e.get(), 0, 1.0f);
        for (int i = 0; i < 60; ++i) capture();
        for (int i = 0; i < 5; ++i) cycle();
    }
    void capture() {
        const double f = written(e.get());
        re_engine_note_capture(e.get(), re_engine_frames_written(e.get()), kBlock,
                               kT0 + f / RE_RATE + capture_shift, -1.0);
        write_ramp(e.get(), kBlock);
    }
    std::vector<float> cycle(double ahead = 0.005, bool stamped = true) {
        capture();
        const double present = kT0 + written(e.get()) / RE_RATE + latency;
        return render(e.get(), 0, kBlock, stamped ? present : 0.0, present - ahead);
    }
    // The ring frame due at the start of the next period's block.
    double next_due() const {
        return written(e.get()) + kBlock + latency * RE_RATE - 4096 - s->late_floor;
    }
    bool timed() const { return re_engine_timed(e.get(), 0) == 1; }

    engine_ptr e = make_engine();
    re_slot* s = &e->slots[0];
    double capture_shift = 0.0;
    double latency = 0.010;
};

TEST_F(TimedRender, PlaysEachFrameAtItsCaptureTimePlusTheBaseLag) {
    for (int i = 0; i < 50; ++i) {
        const double due = next_due();
        ASSERT_NEAR(frame_of(cycle(), 0), due, 1e-3);
    }
    EXPECT_TRUE(timed());
    EXPECT_NEAR(re_engine_ppm(e.get(), 0), 0.0, 1e-3);
}

// The capture stalls while the device asks on: once the ring runs out the
// slot is silent, and says so. A stream that did not play that silence asks
// for the same time again when the audio has come, and the slot plays on at
// full gain as if nothing had happened; one that had to move on (its sink ran
// dry) gets the audio due at its new time, faded in.
TEST_F(TimedRender, ALateCaptureIsWaitedForInPlace) {
    const double period = kBlock / RE_RATE;
    double present = kT0 + written(e.get()) / RE_RATE + latency;
    int sounding = 0;
    for (; sounding < 20; ++sounding) {
        present += period;
        render(e.get(), 0, kBlock, present, present - 0.005);
        if (re_engine_starving(e.get(), 0)) break;
    }
    ASSERT_LT(sounding, 20);
    EXPECT_EQ(sounding, 6) << "75 ms of captured audio ahead: six whole blocks";

    for (int i = 0; i < 10; ++i) capture();
    const double due = (present - kT0) * RE_RATE - 4096;
    auto out = render(e.get(), 0, kBlock, present, present - 0.005);
    EXPECT_EQ(re_engine_starving(e.get(), 0), 0);
    EXPECT_NEAR(frame_of(out, 0), due, 1e-3);
    EXPECT_FLOAT_EQ(out[1], 1.0f) << "no fade: nothing was heard missing";

    for (int i = 0; i < 20; ++i) {
        present += period;
        render(e.get(), 0, kBlock, present, present - 0.005);
    }
    ASSERT_EQ(re_engine_starving(e.get(), 0), 1);
    for (int i = 0; i < 30; ++i) capture();
    present += 3 * period;
    out = render(e.get(), 0, kBlock, present, present - 0.005);
    EXPECT_NEAR(frame_of(out, 0), (present - kT0) * RE_RATE - 4096, 0.01);
    EXPECT_FLOAT_EQ(out[1], RE_RAMP_STEP);
}

TEST_F(TimedRender, CoastsForOneSecondThenTheFillLoopTakesOverInPlace) {
    std::vector<float> out;
    for (int i = 0; i < 100; ++i) {  // 100 blocks of 480 frames
        const double due = next_due();
        out = cycle(0.005, false);
        ASSERT_TRUE(timed()) << i;
        ASSERT_NEAR(frame_of(out, 0), due, 1e-3) << i;
    }
    const double last = frame_of(out, kBlock - 1);
    out = cycle(0.005, false);
    EXPECT_FALSE(timed());
    EXPECT_EQ(re_engine_primed(e.get(), 0), 1);
    EXPECT_NEAR(frame_of(out, 0), last + 1.0, 0.01) << "same read position";
    cycle();
    EXPECT_TRUE(timed());
}

TEST_F(TimedRender, SmallCaptureRebaseIsFollowedBySpeed) {
    capture_shift = 0.005;
    cycle();
    EXPECT_EQ(e->rebase_count, 1u);
    EXPECT_EQ(s->slewing, 1);
    EXPECT_NEAR(re_engine_fill_err_ms(e.get(), 0), -5.0, 0.01);
    EXPECT_NEAR(re_engine_ppm(e.get(), 0), -5000.0, 1.0) << "a glide at the coarse limit";
    for (int i = 0; i < 300; ++i) {
        cycle();
        ASSERT_EQ(s->fade_left, 0u);
    }
    EXPECT_EQ(s->slewing, 0);
    EXPECT_GT(re_engine_fill_err_ms(e.get(), 0), -2.0);
}

TEST_F(TimedRender, LargeCaptureRebaseCrossfades) {
    capture_shift = 0.200;
    const double from = s->read_pos;
    auto out = cycle();
    EXPECT_EQ(s->fade_left, RE_FADE_FRAMES - kBlock);
    EXPECT_NEAR(frame_of(out, 0), from, 1e-3);
    EXPECT_NEAR(frame_of(out, 479), from + 479 - 479.0 / 512 * 9600, 0.05);
}

TEST_F(TimedRender, LatenessRisesAfterEightBlocksAndStays) {
    const double ahead = 0.080;  // the device buffers more than the base lag
    const double candidate = ahead * RE_RATE + (kBlock * 1.005 + 34) + kBlock + 256 - 4096;
    for (int i = 0; i < 7; ++i) cycle(ahead);
    cycle();  // one calm block starts the count again
    for (int i = 0; i < 7; ++i) cycle(ahead);
    EXPECT_EQ(re_engine_late_ms(e.get(), 0), 0.0);
    cycle(ahead);
    const double late = std::ceil(candidate / 48.0) * 48.0;
    EXPECT_DOUBLE_EQ(re_engine_late_ms(e.get(), 0), late / 48.0);
    EXPECT_NE(s->fade_left, 0u) << "in force in the same block";
    for (int i = 0; i < 20; ++i) cycle();
    EXPECT_DOUBLE_EQ(re_engine_late_ms(e.get(), 0), late / 48.0);
    const double due = next_due();
    EXPECT_NEAR(frame_of(cycle(), 0), due, 0.05);
    re_engine_reset_reader(e.get(), 0);
    cycle();
    EXPECT_EQ(re_engine_late_ms(e.get(), 0), 0.0);
}

TEST_F(TimedRender, ReaderPastTheRingJumpsAndFadesIn) {
    for (int i = 0; i < 2200; ++i) capture();
    const double due = next_due();
    auto out = cycle();
    EXPECT_EQ(s->fade_left, 0u);
    EXPECT_FLOAT_EQ(out[1], RE_RAMP_STEP);
    EXPECT_NEAR(frame_of(out, 0), due, 0.2);
}

}  // namespace
