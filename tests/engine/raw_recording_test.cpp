#include "raw_recording.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <vector>

namespace vt::syncmeter {
namespace {

std::vector<unsigned char> bytesOf(const std::vector<float>& v) {
    std::vector<unsigned char> b(v.size() * sizeof(float));
    std::memcpy(b.data(), v.data(), b.size());
    return b;
}

const std::vector<RecordRequest> kTwo{{"living", "living:monitor_FL"}, {"den", "den:monitor_FL"}};

TEST(RawRecording, ChannelsBecomeRecordingsOnOneTimeLine) {
    auto b = bytesOf({1, -1, 2, -2, 3, -3, 4, -4});
    b.push_back(0x7f);  // a partial frame at the end is dropped
    auto recs = parseRawRecording(b.data(), b.size(), 48000, 2, kTwo, 1.0 / 48000);
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[0].name, "living");
    EXPECT_EQ(recs[0].left, (std::vector<float>{2, 3, 4})) << "one frame skipped";
    EXPECT_EQ(recs[1].left, (std::vector<float>{-2, -3, -4}));
    EXPECT_EQ(recs[1].right, recs[1].left);
    EXPECT_EQ(recs[0].firstFramePlayedSec, recs[1].firstFramePlayedSec);
    EXPECT_DOUBLE_EQ(recs[0].secondsPerFrame, 1.0 / 48000);
}

TEST(RawRecording, ChannelsPastTheNamesAreLeftOut) {
    auto b = bytesOf({1, 9, 2, 9});
    auto recs = parseRawRecording(b.data(), b.size(), 48000, 2, {{"living", "p"}}, 0);
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].left, (std::vector<float>{1, 2}));
}

TEST(RawRecording, MalformedInputIsBoundedOrRefused) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    auto b = bytesOf({nan, 1, std::numeric_limits<float>::infinity(), 2});
    auto recs = parseRawRecording(b.data(), b.size(), 48000, 2, kTwo, 0);
    EXPECT_EQ(recs[0].left, (std::vector<float>{0, 0}));
    EXPECT_EQ(recs[0].holeFrames, 2u);
    EXPECT_EQ(recs[1].holeFrames, 0u);
    // Nothing at all, or less than a frame, or a skip past the end: empty.
    EXPECT_TRUE(parseRawRecording(nullptr, 0, 48000, 2, kTwo, 0)[0].left.empty());
    EXPECT_TRUE(parseRawRecording(b.data(), 5, 48000, 2, kTwo, 0)[1].left.empty());
    EXPECT_TRUE(parseRawRecording(b.data(), b.size(), 48000, 2, kTwo, 1e9)[0].left.empty());
    EXPECT_EQ(parseRawRecording(b.data(), b.size(), 48000, 2, kTwo, -5)[1].left.size(), 2u);
    EXPECT_THROW(parseRawRecording(b.data(), b.size(), 48000, 2, {}, 0), std::runtime_error);
    EXPECT_THROW(parseRawRecording(b.data(), b.size(), 48000, 1, kTwo, 0), std::runtime_error);
    EXPECT_THROW(parseRawRecording(b.data(), b.size(), 48000, 0, kTwo, 0), std::runtime_error);
    EXPECT_THROW(parseRawRecording(b.data(), b.size(), 48000, 17, kTwo, 0), std::runtime_error);
    EXPECT_THROW(parseRawRecording(b.data(), b.size(), std::nan(""), 2, kTwo, 0),
                 std::runtime_error);
    EXPECT_THROW(readRawRecording("/nonexistent/raw", 48000, 2, kTwo, 0), std::runtime_error);
}

}  // namespace
}  // namespace vt::syncmeter
