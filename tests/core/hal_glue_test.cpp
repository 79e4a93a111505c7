#include "core/hal_glue.h"

#include <gtest/gtest.h>

#include "engine_fixture.h"

namespace {

using stereo = std::pair<float, float>;

re_audio_buffer buf(std::vector<float>& data, uint32_t channels) {
    return {channels, static_cast<uint32_t>(data.size() * 4), data.data()};
}

re_audio_timestamp stamp(double host_sec, double sample_time = -1.0) {
    re_audio_timestamp t;
    t.mHostTime = static_cast<uint64_t>(host_sec * 1e9);
    t.mSampleTime = sample_time;
    t.mFlags =
        kAudioTimeStampHostTimeValid | (sample_time >= 0 ? kAudioTimeStampSampleTimeValid : 0);
    return t;
}

class HalGlue : public ::testing::Test {
  protected:
    void capture(re_audio_buffer_list list, const re_audio_timestamp* t = nullptr) {
        re_input_ioproc(0, nullptr, &list, t, nullptr, nullptr, &in);
    }
    void play(re_audio_buffer_list list, const re_audio_timestamp* t = nullptr) {
        write_const(e.get(), 8192, 0.25f, 0.5f);
        re_output_ioproc(0, nullptr, nullptr, nullptr, &list, t, &out);
    }
    stereo back(uint64_t frames) const {  // the frame this far behind the head
        const uint64_t i = (re_engine_frames_written(e.get()) - frames) & RE_RING_MASK;
        return {e->ring[2 * i], e->ring[2 * i + 1]};
    }

    engine_ptr e = make_engine();
    re_input_ctx in{e.get()};
    re_output_ctx out{e.get(), 3};
};

TEST_F(HalGlue, CaptureIsStampedAtItsFirstFrameThenWrittenAndCapped) {
    write_const(e.get(), 1000, 0, 0);
    std::vector<float> data(2 * 5000);
    for (size_t k = 0; k < data.size(); ++k) data[k] = static_cast<float>(k);
    const auto t = stamp(10.0, 777.0);
    capture({1, {buf(data, 2)}}, &t);
    EXPECT_EQ(re_engine_frames_written(e.get()), 1000u + 4096u);
    EXPECT_EQ(e->capture_frame.load(), 1000.0);
    EXPECT_EQ(e->capture_block_frames.load(), 4096u);
    EXPECT_EQ(e->expected_sample_time, 777.0 + 4096);
    EXPECT_EQ(back(1), stereo(8190, 8191));
    const auto no_counter = stamp(10.1);
    capture({1, {buf(data, 2)}}, &no_counter);
    EXPECT_EQ(e->expected_sample_time, -1.0);
    // Blocks without a host time are written but not noted.
    re_audio_timestamp counter_only;
    counter_only.mFlags = kAudioTimeStampSampleTimeValid;
    capture({1, {buf(data, 2)}}, &counter_only);
    capture({1, {buf(data, 2)}});
    capture({0, {}});
    EXPECT_EQ(e->capture_frame.load(), 1000.0 + 4096);
    EXPECT_EQ(re_engine_frames_written(e.get()), 1000u + 4 * 4096u);
}

TEST_F(HalGlue, CaptureChannelLayouts) {
    std::vector<float> five(5 * 10);
    for (size_t k = 0; k < five.size(); ++k) five[k] = static_cast<float>(k);
    capture({1, {buf(five, 5)}});
    EXPECT_EQ(back(10), stereo(0, 1));
    EXPECT_EQ(back(1), stereo(45, 46));
    std::vector<float> left{1, 2, 3};
    std::vector<float> right{-1, -2, -3};
    std::vector<float> third{9, 9, 9};
    capture({3, {buf(left, 1), buf(right, 1), buf(third, 1)}});
    EXPECT_EQ(back(3), stereo(1, -1));
    EXPECT_EQ(back(1), stereo(3, -3));
    capture({1, {buf(left, 0)}});
    EXPECT_EQ(back(1), stereo(3, 3));
    EXPECT_EQ(re_engine_frames_written(e.get()), 16u);
}

TEST_F(HalGlue, OutputChannelLayouts) {
    re_engine_set_gain(e.get(), 3, 1.0f);
    re_engine_reset_reader(e.get(), 3);
    std::vector<float> warm(2 * 512);
    play({1, {buf(warm, 2)}});  // past the fade-in

    std::vector<float> four(4 * 64, 7.0f);
    std::vector<float> extra(16, 7.0f);
    play({2, {buf(four, 4), buf(extra, 1)}});
    EXPECT_EQ(std::vector<float>(four.end() - 4, four.end()),
              (std::vector<float>{0.25f, 0.5f, 0.0f, 0.0f}));
    EXPECT_EQ(extra, std::vector<float>(16, 0.0f));

    std::vector<std::vector<float>> planar(4, std::vector<float>(32, 7.0f));
    play({4, {buf(planar[0], 1), buf(planar[1], 1), buf(planar[2], 1), buf(planar[3], 1)}});
    EXPECT_EQ(planar[0], std::vector<float>(32, 0.25f));
    EXPECT_EQ(planar[1], std::vector<float>(32, 0.5f));
    EXPECT_EQ(planar[3], std::vector<float>(32, 0.0f));

    std::vector<float> mono(32, 7.0f);
    play({1, {buf(mono, 1)}});
    EXPECT_EQ(mono, std::vector<float>(32, 0.25f)) << "left only, no down-mix";

    std::vector<float> tiny{7.0f};
    play({1, {buf(tiny, 2)}});
    EXPECT_EQ(tiny[0], 0.0f) << "under a frame: zeroed";
    tiny[0] = 7.0f;
    play({1, {{1, 2, tiny.data()}}});
    EXPECT_EQ(tiny[0], 7.0f) << "under a mono frame: left alone";

    std::vector<float> big(2 * 5000, 7.0f);
    play({1, {buf(big, 2)}});
    EXPECT_EQ(big[2 * 4095], 0.25f);
    EXPECT_EQ(big[2 * 4096], 0.0f) << "only 4096 frames are rendered";
    EXPECT_EQ(re_engine_timed(e.get(), 3), 0);
}

TEST_F(HalGlue, StampedOutputRunsOnTheHostTimedPath) {
    const double now = re_engine_host_now_sec(e.get());
    write_const(e.get(), 16384, 0.25f, 0.5f);
    re_engine_note_capture(e.get(), 16384, 512, now - 0.5, -1.0);
    std::vector<float> data(2 * 256);
    const auto t = stamp(now);
    play({1, {buf(data, 2)}}, &t);
    EXPECT_EQ(re_engine_timed(e.get(), 3), 1);
}

}  // namespace
