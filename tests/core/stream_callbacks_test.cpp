#include "core/stream_callbacks.h"

#include <gtest/gtest.h>

#include "engine_fixture.h"

namespace {

using stereo = std::pair<float, float>;

class StreamCallbacks : public ::testing::Test {
  protected:
    stereo back(uint64_t frames) const {  // the frame this far behind the head
        const uint64_t i = (re_engine_frames_written(e.get()) - frames) & RE_RING_MASK;
        return {e->ring[2 * i], e->ring[2 * i + 1]};
    }

    engine_ptr e = make_engine();
    re_input_ctx in{e.get()};
    re_output_ctx out{e.get(), 3};
};

TEST_F(StreamCallbacks, CaptureIsStampedAtItsFirstFrameThenWritten) {
    write_const(e.get(), 1000, 0, 0);
    std::vector<float> data(2 * 300);
    for (size_t k = 0; k < data.size(); ++k) data[k] = static_cast<float>(k);
    re_capture_block(&in, data.data(), 300, 10.0, 777.0);
    EXPECT_EQ(re_engine_frames_written(e.get()), 1300u);
    EXPECT_EQ(e->capture_frame.load(), 1000.0);
    EXPECT_EQ(e->capture_block_frames.load(), 300u);
    EXPECT_EQ(e->expected_sample_time, 777.0 + 300);
    EXPECT_EQ(back(1), stereo(598, 599));

    // A stream position that jumps is an interruption: the clock rebases.
    re_capture_block(&in, data.data(), 300, 10.0 + 300 / RE_RATE, 2000.0);
    EXPECT_EQ(e->rebase_count, 1u);
    // No stream position: the clock filters on.
    re_capture_block(&in, data.data(), 300, 10.0 + 600 / RE_RATE, -1.0);
    EXPECT_EQ(e->expected_sample_time, -1.0);
    EXPECT_EQ(e->rebase_count, 1u);
}

TEST_F(StreamCallbacks, CaptureWithoutTimeIsWrittenButNotNotedAndAHoleIsNotWritten) {
    std::vector<float> data(2 * 64, 0.5f);
    re_capture_block(&in, data.data(), 64, 0.0, 0.0);
    EXPECT_EQ(re_engine_frames_written(e.get()), 64u);
    EXPECT_EQ(e->capture_valid.load(), 0);
    re_capture_block(&in, nullptr, 64, 5.0, 64.0);
    EXPECT_EQ(re_engine_frames_written(e.get()), 64u);
    EXPECT_EQ(e->capture_valid.load(), 1) << "a hole still says when it played";
    re_capture_block(nullptr, data.data(), 64, 5.0, 64.0);
    EXPECT_EQ(re_engine_frames_written(e.get()), 64u);
}

TEST_F(StreamCallbacks, PlaybackRendersInPlaceUntimedOrTimed) {
    re_engine_set_gain(e.get(), 3, 1.0f);
    re_engine_reset_reader(e.get(), 3);
    write_const(e.get(), 16384, 0.25f, 0.5f);
    std::vector<float> block(2 * 512, 7.0f);
    re_playback_block(&out, block.data(), 512, 0.0, 0.0);
    EXPECT_EQ(re_engine_timed(e.get(), 3), 0);
    EXPECT_EQ(re_engine_primed(e.get(), 3), 1);
    EXPECT_EQ(block[2 * 511], 0.25f) << "past the fade-in";
    EXPECT_EQ(block[2 * 511 + 1], 0.5f);

    const double now = re_engine_host_now_sec(e.get());
    re_engine_note_capture(e.get(), 16384, 512, now - 0.5, -1.0);
    re_playback_block(&out, block.data(), 256, now, 512.0);
    EXPECT_EQ(re_engine_timed(e.get(), 3), 1);
}

TEST_F(StreamCallbacks, PlaybackSaysWhenTheSlotFallsSilentForWantOfAudio) {
    re_engine_set_gain(e.get(), 3, 1.0f);
    re_engine_reset_reader(e.get(), 3);
    std::vector<float> block(2 * 512);
    EXPECT_TRUE(re_playback_block(&out, block.data(), 512, 0.0, 0.0))
        << "a slot that never sounded keeps its stream going with silence";
    write_const(e.get(), 16384, 0.25f, 0.5f);
    EXPECT_TRUE(re_playback_block(&out, block.data(), 512, 0.0, 0.0));
    bool starving = false;
    for (int i = 0; i < 64 && !starving; ++i)
        starving = !re_playback_block(&out, block.data(), 512, 0.0, 0.0);
    EXPECT_TRUE(starving) << "the capture stopped and the slot read all it had";
    write_const(e.get(), 16384, 0.25f, 0.5f);
    EXPECT_TRUE(re_playback_block(&out, block.data(), 512, 0.0, 0.0)) << "the capture is back";
}

}  // namespace
