#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "engine_fixture.h"

namespace {

constexpr uint32_t kBlock = 512;
constexpr double kT0 = 50.0;

// Feeds n blocks stamped exactly on the nominal rate, advancing the writer.
void feed(re_engine* e, int blocks, double jitter_sec = 0.0, uint32_t seed = 1) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> j(-jitter_sec, jitter_sec);
    for (int b = 0; b < blocks; ++b) {
        const uint64_t f = re_engine_frames_written(e);
        re_engine_note_capture(e, f, kBlock, kT0 + f / RE_RATE + (jitter_sec > 0 ? j(rng) : 0.0),
                               static_cast<double>(f));
        write_const(e, kBlock, 0.0f, 0.0f);
    }
}

TEST(CaptureClock, FirstBlockAnchorsWithoutCountingARebase) {
    auto e = make_engine();
    EXPECT_EQ(re_engine_frame_host_sec(e.get(), 0.0), -1.0);
    re_engine_note_capture(e.get(), 0, kBlock, kT0, 0.0);
    EXPECT_EQ(e->rebase_count, 0u);
    EXPECT_EQ(e->capture_generation.load(), 0u);
    EXPECT_EQ(e->capture_block_frames.load(), kBlock);
    EXPECT_DOUBLE_EQ(re_engine_frame_host_sec(e.get(), 0.0), kT0);
    EXPECT_DOUBLE_EQ(re_engine_frame_host_sec(e.get(), 48000.0), kT0 + 1.0);
}

TEST(CaptureClock, IgnoresUnstampedAndEmptyBlocks) {
    auto e = make_engine();
    re_engine_note_capture(e.get(), 0, kBlock, 0.0, 0.0);
    re_engine_note_capture(e.get(), 0, kBlock, -1.0, 0.0);
    re_engine_note_capture(e.get(), 0, 0, kT0, 0.0);
    re_engine_note_capture(nullptr, 0, kBlock, kT0, 0.0);
    EXPECT_EQ(e->dll_valid, 0);
    EXPECT_EQ(re_engine_frame_host_sec(e.get(), 0.0), -1.0);
}

TEST(CaptureClock, JitteredStampsAreSmoothedOntoTheTrueLine) {
    auto e = make_engine();
    feed(e.get(), 2000, 0.0015);  // about 21 s of 1.5 ms jitter
    EXPECT_EQ(e->rebase_count, 0u);
    const double f = static_cast<double>(re_engine_frames_written(e.get()));
    EXPECT_NEAR(re_engine_frame_host_sec(e.get(), f), kT0 + f / RE_RATE, 2e-4);
    EXPECT_NEAR(e->dll_sec_per_frame * RE_RATE, 1.0, 2e-5);
}

TEST(CaptureClock, SampleTimeJumpRebases) {
    auto e = make_engine();
    feed(e.get(), 10);
    const uint64_t f = re_engine_frames_written(e.get());
    // Host time is on the line, but the device counter skipped a block.
    re_engine_note_capture(e.get(), f, kBlock, kT0 + f / RE_RATE, f + 512.0);
    EXPECT_EQ(e->rebase_count, 1u);
    EXPECT_EQ(e->capture_generation.load(), 1u);
    EXPECT_EQ(e->expected_sample_time, f + 1024.0);
    // A counter within half a frame of the expectation is not a jump.
    write_const(e.get(), kBlock, 0, 0);
    const uint64_t g = re_engine_frames_written(e.get());
    re_engine_note_capture(e.get(), g, kBlock, kT0 + g / RE_RATE, f + 1024.4);
    EXPECT_EQ(e->rebase_count, 1u);
}

TEST(CaptureClock, MissingSampleTimeClearsJumpDetection) {
    auto e = make_engine();
    feed(e.get(), 10);
    uint64_t f = re_engine_frames_written(e.get());
    re_engine_note_capture(e.get(), f, kBlock, kT0 + f / RE_RATE, -1.0);
    EXPECT_EQ(e->expected_sample_time, -1.0);
    write_const(e.get(), kBlock, 0, 0);
    f = re_engine_frames_written(e.get());
    re_engine_note_capture(e.get(), f, kBlock, kT0 + f / RE_RATE, 999999.0);
    EXPECT_EQ(e->rebase_count, 0u);
}

TEST(CaptureClock, LargeTimingErrorRebasesButSmallOneIsFiltered) {
    auto e = make_engine();
    feed(e.get(), 10);
    uint64_t f = re_engine_frames_written(e.get());
    re_engine_note_capture(e.get(), f, kBlock, kT0 + f / RE_RATE + 0.0039, -1.0);
    EXPECT_EQ(e->rebase_count, 0u);
    const double filtered = re_engine_frame_host_sec(e.get(), static_cast<double>(f));
    EXPECT_GT(filtered, kT0 + f / RE_RATE);
    EXPECT_LT(filtered, kT0 + f / RE_RATE + 0.0039);

    write_const(e.get(), kBlock, 0, 0);
    f = re_engine_frames_written(e.get());
    re_engine_note_capture(e.get(), f, kBlock, kT0 + f / RE_RATE + 0.0045, -1.0);
    EXPECT_EQ(e->rebase_count, 1u);
    EXPECT_DOUBLE_EQ(re_engine_frame_host_sec(e.get(), static_cast<double>(f)),
                     kT0 + f / RE_RATE + 0.0045)
        << "a rebase takes the raw stamp";
}

TEST(CaptureClock, GapsOverTwoSecondsAndBackwardFramesRebase) {
    auto e = make_engine();
    feed(e.get(), 10);
    const double base = e->dll_frame;
    // Exactly two seconds later is still a gap the filter bridges.
    re_engine_note_capture(e.get(), static_cast<uint64_t>(base) + 96000, kBlock,
                           kT0 + (base + 96000) / RE_RATE, -1.0);
    EXPECT_EQ(e->rebase_count, 0u);
    re_engine_note_capture(e.get(), static_cast<uint64_t>(base) + 96000 + 96001, kBlock,
                           kT0 + (base + 96000 + 96001) / RE_RATE, -1.0);
    EXPECT_EQ(e->rebase_count, 1u);
    re_engine_note_capture(e.get(), static_cast<uint64_t>(base), kBlock, kT0 + base / RE_RATE,
                           -1.0);
    EXPECT_EQ(e->rebase_count, 2u);
}

TEST(CaptureClock, PeriodStaysWithinOnePartPerThousand) {
    auto e = make_engine();
    // A capture clock 3 parts per thousand slow: each block lands late by
    // just under the rebase threshold's reach, so the filter keeps pulling.
    for (int b = 0; b < 4000; ++b) {
        const uint64_t f = re_engine_frames_written(e.get());
        re_engine_note_capture(e.get(), f, kBlock, kT0 + f / RE_RATE * 1.003, -1.0);
        write_const(e.get(), kBlock, 0.0f, 0.0f);
        ASSERT_LE(e->dll_sec_per_frame, 2.0854166666666664e-05);
        ASSERT_GE(e->dll_sec_per_frame, 2.0812499999999998e-05);
    }
    EXPECT_EQ(e->dll_sec_per_frame, 2.0854166666666664e-05);
}

TEST(CaptureClock, ResetForgetsTheClock) {
    auto e = make_engine();
    feed(e.get(), 10);
    re_engine_note_capture(e.get(), re_engine_frames_written(e.get()), kBlock, 999.0, -1.0);
    ASSERT_EQ(e->rebase_count, 1u);
    re_engine_reset(e.get());
    EXPECT_EQ(re_engine_frames_written(e.get()), 0u);
    EXPECT_EQ(re_engine_frame_host_sec(e.get(), 0.0), -1.0);
    EXPECT_EQ(e->expected_sample_time, -1.0);
    re_engine_note_capture(e.get(), 0, kBlock, kT0, 0.0);
    EXPECT_EQ(e->rebase_count, 0u);
    EXPECT_DOUBLE_EQ(re_engine_frame_host_sec(e.get(), 0.0), kT0);
}

}  // namespace
