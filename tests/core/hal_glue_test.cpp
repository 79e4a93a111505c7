#include "core/hal_glue.h"

#include <gtest/gtest.h>

#include <memory>

#include "engine_fixture.h"

namespace {

re_audio_timestamp stamp(double host_sec, double sample_time = -1.0) {
    re_audio_timestamp t;
    t.mHostTime = static_cast<uint64_t>(host_sec * 1e9);
    t.mFlags = kAudioTimeStampHostTimeValid;
    if (sample_time >= 0) {
        t.mSampleTime = sample_time;
        t.mFlags |= kAudioTimeStampSampleTimeValid;
    }
    return t;
}

re_audio_buffer buffer(std::vector<float>& data, uint32_t channels) {
    return {channels, static_cast<uint32_t>(data.size() * sizeof(float)), data.data()};
}

class HalGlue : public ::testing::Test {
  protected:
    void SetUp() override {
        e = make_engine();
        in = std::make_unique<re_input_ctx>();
        in->engine = e.get();
        out = std::make_unique<re_output_ctx>();
        out->engine = e.get();
        out->slot = 3;
        re_engine_set_gain(e.get(), 3, 1.0f);
    }
    void capture(re_audio_buffer_list& list, const re_audio_timestamp* t) {
        re_input_ioproc(0, nullptr, &list, t, nullptr, nullptr, in.get());
    }
    void play(re_audio_buffer_list& list, const re_audio_timestamp* t) {
        re_output_ioproc(0, nullptr, nullptr, nullptr, &list, t, out.get());
    }
    // Frame `back` frames before the write head, left and right.
    std::pair<float, float> ring_frame(uint64_t back) const {
        const uint64_t idx = (re_engine_frames_written(e.get()) - back) & RE_RING_MASK;
        return {e->ring[2 * idx], e->ring[2 * idx + 1]};
    }

    engine_ptr e;
    std::unique_ptr<re_input_ctx> in;
    std::unique_ptr<re_output_ctx> out;
};

TEST_F(HalGlue, InterleavedStereoIsStampedThenWrittenAndCappedAt4096) {
    write_const(e.get(), 1000, 0, 0);
    std::vector<float> data(2 * 5000);
    for (size_t k = 0; k < data.size(); ++k) data[k] = static_cast<float>(k);
    re_audio_buffer_list list{1, {buffer(data, 2)}};
    const auto t = stamp(10.0, 777.0);
    capture(list, &t);
    EXPECT_EQ(re_engine_frames_written(e.get()), 1000u + 4096u);
    EXPECT_EQ(e->capture_frame.load(), 1000.0) << "the anchor is the block's first frame";
    EXPECT_EQ(e->capture_block_frames.load(), 4096u);
    EXPECT_DOUBLE_EQ(e->capture_raw_host_sec.load(), 10.0);
    EXPECT_EQ(e->expected_sample_time, 777.0 + 4096);
    EXPECT_EQ(ring_frame(1), std::make_pair(8190.0f, 8191.0f));
}

TEST_F(HalGlue, UnstampedBlockIsWrittenButNotNoted) {
    std::vector<float> data(2 * 64, 0.5f);
    re_audio_buffer_list list{1, {buffer(data, 2)}};
    capture(list, nullptr);
    re_audio_timestamp no_host;
    no_host.mFlags = kAudioTimeStampSampleTimeValid;
    capture(list, &no_host);
    EXPECT_EQ(re_engine_frames_written(e.get()), 128u);
    EXPECT_EQ(e->capture_valid.load(), 0);
}

TEST_F(HalGlue, StampWithoutSampleTimePassesMinusOne) {
    std::vector<float> data(2 * 64, 0.5f);
    re_audio_buffer_list list{1, {buffer(data, 2)}};
    auto t = stamp(10.0, 0.0);
    capture(list, &t);
    EXPECT_EQ(e->expected_sample_time, 64.0);
    t = stamp(10.0 + 64 / 48000.0);
    capture(list, &t);
    EXPECT_EQ(e->expected_sample_time, -1.0);
}

TEST_F(HalGlue, FiveChannelCaptureKeepsTheFirstTwo) {
    std::vector<float> data(5 * 10);
    for (int f = 0; f < 10; ++f) {
        for (int c = 0; c < 5; ++c) data[5 * f + c] = static_cast<float>(10 * f + c);
    }
    re_audio_buffer_list list{1, {buffer(data, 5)}};
    const auto t = stamp(10.0);
    capture(list, &t);
    EXPECT_EQ(re_engine_frames_written(e.get()), 10u);
    EXPECT_EQ(e->capture_block_frames.load(), 10u);
    EXPECT_EQ(ring_frame(10), std::make_pair(0.0f, 1.0f));
    EXPECT_EQ(ring_frame(1), std::make_pair(90.0f, 91.0f));
}

TEST_F(HalGlue, PlanarCaptureInterleavesAndMonoDoubles) {
    std::vector<float> left{1, 2, 3};
    std::vector<float> right{-1, -2, -3};
    std::vector<float> third{9, 9, 9};
    re_audio_buffer_list planar{3, {buffer(left, 1), buffer(right, 1), buffer(third, 1)}};
    capture(planar, nullptr);
    EXPECT_EQ(ring_frame(3), std::make_pair(1.0f, -1.0f));
    EXPECT_EQ(ring_frame(1), std::make_pair(3.0f, -3.0f));

    re_audio_buffer_list mono{1, {buffer(left, 0)}};
    const auto t = stamp(10.0);
    capture(mono, &t);
    EXPECT_EQ(e->capture_block_frames.load(), 3u);
    EXPECT_EQ(ring_frame(1), std::make_pair(3.0f, 3.0f));
    EXPECT_EQ(re_engine_frames_written(e.get()), 6u);
}

TEST_F(HalGlue, EmptyInputListDoesNothing) {
    re_audio_buffer_list empty{0, {}};
    const auto t = stamp(10.0);
    capture(empty, &t);
    re_input_ioproc(0, nullptr, nullptr, &t, nullptr, nullptr, in.get());
    EXPECT_EQ(re_engine_frames_written(e.get()), 0u);
    EXPECT_EQ(e->capture_valid.load(), 0);
}

// The slot is fed a constant 0.25 / 0.5 and has been rendering long enough
// to be at full gain.
class HalGlueOutput : public HalGlue {
  protected:
    void SetUp() override {
        HalGlue::SetUp();
        write_const(e.get(), 16384, 0.25f, 0.5f);
        std::vector<float> warm(2 * 512);
        re_engine_render(e.get(), 3, warm.data(), 512);
    }
};

TEST_F(HalGlueOutput, FourChannelInterleavedGetsStereoThenSilence) {
    std::vector<float> data(4 * 64, 7.0f);
    std::vector<float> extra(16, 7.0f);
    re_audio_buffer_list list{2, {buffer(data, 4), buffer(extra, 1)}};
    play(list, nullptr);
    EXPECT_EQ(data[0], 0.25f);
    EXPECT_EQ(data[1], 0.5f);
    EXPECT_EQ(data[2], 0.0f);
    EXPECT_EQ(data[3], 0.0f);
    EXPECT_EQ(data[4 * 63 + 1], 0.5f);
    for (float v : extra) EXPECT_EQ(v, 0.0f);
    EXPECT_EQ(re_engine_timed(e.get(), 3), 0) << "no stamp: fill-based";
}

TEST_F(HalGlueOutput, PlanarFourBuffersGetLeftRightSilenceSilence) {
    std::vector<std::vector<float>> bufs(4, std::vector<float>(32, 7.0f));
    re_audio_buffer_list list{
        4, {buffer(bufs[0], 1), buffer(bufs[1], 1), buffer(bufs[2], 1), buffer(bufs[3], 1)}};
    play(list, nullptr);
    for (int f = 0; f < 32; ++f) {
        ASSERT_EQ(bufs[0][f], 0.25f);
        ASSERT_EQ(bufs[1][f], 0.5f);
        ASSERT_EQ(bufs[2][f], 0.0f);
        ASSERT_EQ(bufs[3][f], 0.0f);
    }
}

TEST_F(HalGlueOutput, LoneMonoBufferGetsTheLeftChannelOnly) {
    std::vector<float> mono(32, 7.0f);
    re_audio_buffer_list list{1, {buffer(mono, 1)}};
    play(list, nullptr);
    for (float v : mono) ASSERT_EQ(v, 0.25f);
}

TEST_F(HalGlueOutput, BufferSmallerThanAFrame) {
    std::vector<float> stereo{7.0f};
    re_audio_buffer_list list{1, {buffer(stereo, 2)}};
    play(list, nullptr);
    EXPECT_EQ(stereo[0], 0.0f) << "zeroed";
    std::vector<float> mono{7.0f};
    re_audio_buffer_list small{1, {{1, 2, mono.data()}}};
    play(small, nullptr);
    EXPECT_EQ(mono[0], 7.0f) << "left as it was";
}

TEST_F(HalGlueOutput, OversizedBlockFillsOnly4096Frames) {
    std::vector<float> data(2 * 5000, 7.0f);
    re_audio_buffer_list list{1, {buffer(data, 2)}};
    write_const(e.get(), 8192, 0.25f, 0.5f);
    play(list, nullptr);
    EXPECT_EQ(data[2 * 4095], 0.25f);
    EXPECT_EQ(data[2 * 4096], 0.0f);
}

TEST_F(HalGlueOutput, StampedOutputRunsOnTheHostTimedPath) {
    capture_sim cap{e.get()};
    cap.start_sec = re_engine_host_now_sec(e.get()) - 1.0;
    cap.block(512);
    std::vector<float> data(2 * 256);
    re_audio_buffer_list list{1, {buffer(data, 2)}};
    const auto t = stamp(cap.host_of(re_engine_frames_written(e.get())) + 0.01);
    play(list, &t);
    EXPECT_EQ(re_engine_timed(e.get(), 3), 1);
}

}  // namespace
