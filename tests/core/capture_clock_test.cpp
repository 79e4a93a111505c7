#include <gtest/gtest.h>

#include <random>

#include "engine_fixture.h"

namespace {

constexpr uint32_t kBlock = 512;
constexpr double kT0 = 50.0;

// A stamp for the next block: on the nominal line plus `error_sec`, with
// the device counter equal to the frame number unless told otherwise.
void stamp(re_engine* e, double error_sec = 0.0, double sample_time = -2.0, double frame = -1.0) {
    const double f = frame >= 0 ? frame : written(e);
    re_engine_note_capture(e, static_cast<uint64_t>(f), kBlock, kT0 + f / RE_RATE + error_sec,
                           sample_time == -2.0 ? f : sample_time);
    if (frame < 0) write_const(e, kBlock, 0.0f, 0.0f);
}

TEST(CaptureClock, FirstBlockAnchorsAndJitterIsSmoothedAway) {
    auto e = make_engine();
    EXPECT_EQ(re_engine_frame_host_sec(e.get(), 0.0), -1.0);
    stamp(e.get());
    EXPECT_EQ(e->rebase_count, 0u);
    EXPECT_DOUBLE_EQ(re_engine_frame_host_sec(e.get(), 48000.0), kT0 + 1.0);
    std::mt19937 rng(1);
    std::uniform_real_distribution<double> jitter(-0.0015, 0.0015);
    for (int b = 0; b < 2000; ++b) stamp(e.get(), jitter(rng));
    EXPECT_EQ(e->rebase_count, 0u);
    EXPECT_NEAR(re_engine_frame_host_sec(e.get(), written(e.get())),
                kT0 + written(e.get()) / RE_RATE, 2e-4);
}

TEST(CaptureClock, RebaseRules) {
    auto e = make_engine();
    for (int b = 0; b < 10; ++b) stamp(e.get());
    // Unstamped or empty blocks are ignored.
    re_engine_note_capture(e.get(), 99, kBlock, 0.0, 0.0);
    re_engine_note_capture(e.get(), 99, 0, kT0, 0.0);
    EXPECT_EQ(e->dll_frame, written(e.get()) - kBlock);

    stamp(e.get(), 0.0, written(e.get()) + 512);  // device counter skipped a block
    EXPECT_EQ(e->rebase_count, 1u);
    EXPECT_EQ(e->capture_generation.load(), 1u);
    stamp(e.get(), 0.0, written(e.get()) + 512.4);  // within half a frame
    EXPECT_EQ(e->rebase_count, 1u);
    stamp(e.get(), 0.0, -1.0);  // no counter: the next one cannot jump
    stamp(e.get(), 0.0, 12345.0);
    EXPECT_EQ(e->rebase_count, 1u);

    stamp(e.get(), 0.0039, -1.0);
    EXPECT_EQ(e->rebase_count, 1u) << "filtered";
    const double f = written(e.get());
    stamp(e.get(), 0.0045, -1.0);
    EXPECT_EQ(e->rebase_count, 2u);
    EXPECT_DOUBLE_EQ(re_engine_frame_host_sec(e.get(), f), kT0 + f / RE_RATE + 0.0045);

    const double base = e->dll_frame;
    stamp(e.get(), 0.0045, -1.0, base + 96000);  // two seconds on is still bridged
    EXPECT_EQ(e->rebase_count, 2u);
    stamp(e.get(), 0.0045, -1.0, base + 96000 + 96001);
    EXPECT_EQ(e->rebase_count, 3u);
    stamp(e.get(), 0.0045, -1.0, base);  // backwards
    EXPECT_EQ(e->rebase_count, 4u);
}

TEST(CaptureClock, PeriodIsHeldWithinOnePartPerThousand) {
    auto e = make_engine();
    for (int b = 0; b < 4000; ++b) {  // a capture clock running 3 per mille slow
        stamp(e.get(), written(e.get()) / RE_RATE * 0.003);
        ASSERT_LE(e->dll_sec_per_frame, 2.0854166666666664e-05);
    }
    EXPECT_EQ(e->rebase_count, 0u);
    EXPECT_EQ(e->dll_sec_per_frame, 2.0854166666666664e-05);
}

TEST(CaptureClock, ResetForgetsTheClockAndTheFirstBlockAfterIsNoRebase) {
    auto e = make_engine();
    for (int b = 0; b < 10; ++b) stamp(e.get());
    stamp(e.get(), 1.0);
    re_engine_reset(e.get());
    EXPECT_EQ(re_engine_frames_written(e.get()), 0u);
    EXPECT_EQ(re_engine_frame_host_sec(e.get(), 0.0), -1.0);
    stamp(e.get());
    EXPECT_EQ(e->rebase_count, 0u);
    EXPECT_DOUBLE_EQ(re_engine_frame_host_sec(e.get(), 0.0), kT0);
}

}  // namespace
