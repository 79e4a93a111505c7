#include "sendspin/jitter_buffer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace vt::sendspin {
namespace {

// A chunk of `frames` stereo frames whose left samples count up from `first`.
std::vector<int16_t> ramp(int frames, int first) {
    std::vector<int16_t> s;
    for (int i = 0; i < frames; ++i) {
        s.push_back(static_cast<int16_t>(first + i));
        s.push_back(static_cast<int16_t>(-(first + i)));
    }
    return s;
}

int leftAt(const std::vector<float>& out, size_t frame) {
    return static_cast<int>(std::lround(out[2 * frame] * 32768.0f));
}

TEST(SendspinJitterBuffer, PlaysChunksAtTheirStampsWithSilenceInGaps) {
    SendspinJitterBuffer buffer;
    buffer.push(10'000, ramp(480, 1));     // 10 ms .. 20 ms
    buffer.push(30'000, ramp(480, 1000));  // a 10 ms gap before this one
    std::vector<float> out(2 * 1440);
    buffer.read(out.data(), 1440, 10'000);
    EXPECT_EQ(leftAt(out, 0), 1);
    EXPECT_EQ(leftAt(out, 479), 480);
    EXPECT_FLOAT_EQ(out[2 * 479 + 1], -480 / 32768.0f);
    EXPECT_EQ(leftAt(out, 480), 0);  // the gap
    EXPECT_EQ(leftAt(out, 959), 0);
    EXPECT_EQ(leftAt(out, 960), 1000);
    EXPECT_DOUBLE_EQ(*buffer.cursorUs(), 10'000 + 1440 * 20.833333333333332);
    // Past the end: silence.
    buffer.read(out.data(), 10, 40'000);
    EXPECT_EQ(leftAt(out, 0), 0);
}

TEST(SendspinJitterBuffer, AbsorbsSmallCorrectionsOneFrameAtATimeAndJumpsOnLargeOnes) {
    SendspinJitterBuffer buffer;
    for (int i = 0; i < 10; ++i) buffer.push(i * 10'000, ramp(480, i * 480));
    std::vector<float> out(2 * 480);
    buffer.read(out.data(), 480, 0);
    EXPECT_EQ(leftAt(out, 0), 0);
    // The cursor is now at 10 ms. Asking 5 ms later moves one frame, not 240.
    buffer.read(out.data(), 480, 15'000);
    EXPECT_EQ(leftAt(out, 0), 481);
    // Asking 11 ms past the cursor jumps there.
    const double cursor = *buffer.cursorUs();
    buffer.read(out.data(), 480, static_cast<int64_t>(cursor) + 11'000);
    EXPECT_EQ(leftAt(out, 0),
              static_cast<int>(std::lround((cursor + 11'000) / 20.833333333333332)));
    // Asking a little earlier moves back one frame.
    const double after = *buffer.cursorUs();
    buffer.read(out.data(), 480, static_cast<int64_t>(after) - 100);
    EXPECT_NEAR(*buffer.cursorUs(), after - 20.833333333333332 + 480 * 20.833333333333332, 1e-6);
}

TEST(SendspinJitterBuffer, ATimelineThatGoesBackReplacesWhatFollows) {
    SendspinJitterBuffer buffer;
    buffer.push(0, ramp(480, 0));
    buffer.push(10'000, ramp(480, 480));
    buffer.push(20'000, ramp(480, 960));
    buffer.push(10'000, ramp(480, 5000));
    ASSERT_EQ(buffer.chunks().size(), 2u);
    EXPECT_EQ(buffer.chunks()[1].samples[0], 5000);
}

TEST(SendspinJitterBuffer, DropsHalfPairsTinyChunksAndOldAudio) {
    SendspinJitterBuffer buffer;
    buffer.push(0, std::vector<int16_t>{1});
    EXPECT_TRUE(buffer.chunks().empty());
    buffer.push(0, std::vector<int16_t>{1, 2, 3});
    ASSERT_EQ(buffer.chunks().size(), 1u);
    EXPECT_EQ(buffer.chunks()[0].frames, 1u);
    // Bytes: a cut pair at the end is dropped, not carried over.
    EXPECT_EQ(SendspinJitterBuffer::samples(std::string("\x01\x00\x02\x00\x03\x00", 6)).size(), 2u);
    EXPECT_EQ(SendspinJitterBuffer::samples(std::string("\xFF\x7F\x00\x80", 4)),
              (std::vector<int16_t>{32767, -32768}));

    buffer.push(5'000'000, ramp(480, 0));
    EXPECT_EQ(buffer.chunks().size(), 1u);  // more than three seconds behind: gone
    std::vector<float> out(2 * 480);
    buffer.read(out.data(), 480, 7'000'000);
    buffer.push(7'010'000, ramp(480, 0));
    EXPECT_EQ(buffer.chunks().front().startUs, 7'010'000);  // over a second behind the reader
    buffer.clear();
    EXPECT_TRUE(buffer.chunks().empty());
    EXPECT_FALSE(buffer.cursorUs());
}

}  // namespace
}  // namespace vt::sendspin
