#include "net/websocket_frame.h"

#include <gtest/gtest.h>

#include "net/text.h"

namespace vt::net {
namespace {

using WebSocketFrame::Opcode;
using WebSocketFrame::Parser;

TEST(WebSocketFrame, AcceptKeyMatchesTheHandshakeExample) {
    EXPECT_EQ(WebSocketFrame::acceptKey("dGhlIHNhbXBsZSBub25jZQ=="),
              "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
}

TEST(WebSocketFrame, EncodesEachLengthFormAndRoundTrips) {
    for (size_t size : {0u, 125u, 126u, 65'535u, 65'536u}) {
        const std::string payload(size, 'x');
        const std::string frame = WebSocketFrame::encode(Opcode::binary, payload);
        const size_t header = size < 126 ? 2 : size < 65'536 ? 4 : 10;
        ASSERT_EQ(frame.size(), header + size) << size;
        EXPECT_EQ(static_cast<uint8_t>(frame[0]), 0x82);
        Parser parser(1 << 20);
        const auto frames = parser.append(frame);
        ASSERT_TRUE(frames);
        ASSERT_EQ(frames->size(), 1u);
        EXPECT_EQ((*frames)[0].payload.size(), size);
    }
}

TEST(WebSocketFrame, ParsesMaskedAndUnmaskedFramesDeliveredByteByByte) {
    const std::string masked =
        WebSocketFrame::encode(Opcode::text, "hello", true, std::array<uint8_t, 4>{1, 2, 3, 4});
    const std::string plain = WebSocketFrame::encode(Opcode::text, "world", false);
    const std::string both = masked + plain;
    Parser parser(1024);
    std::vector<WebSocketFrame::Frame> got;
    for (char c : both) {
        auto frames = parser.append(std::string_view(&c, 1));
        ASSERT_TRUE(frames);
        for (auto& f : *frames) got.push_back(f);
    }
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].payload, "hello");
    EXPECT_TRUE(got[0].fin);
    EXPECT_EQ(got[1].payload, "world");
    EXPECT_FALSE(got[1].fin);
    EXPECT_EQ(parser.buffered(), 0u);
}

TEST(WebSocketFrame, KeepsUnknownOpcodesAndIgnoresReservedBits) {
    Parser parser(16);
    const auto frames = parser.append(std::string("\xF3\x01z", 3));
    ASSERT_TRUE(frames);
    ASSERT_EQ(frames->size(), 1u);
    EXPECT_EQ((*frames)[0].opcode, 3);
    EXPECT_TRUE((*frames)[0].fin);
}

TEST(WebSocketFrame, RefusesAFrameClaimingMoreThanTheLimitBeforeItArrives) {
    Parser parser(100);
    EXPECT_TRUE(parser.append(WebSocketFrame::encode(Opcode::binary, std::string(100, 'a'))));
    Parser small(100);
    // Only the header of a 101-byte frame: refused at once, without waiting for the rest.
    EXPECT_FALSE(small.append(std::string("\x82\x65", 2)));
    Parser huge(1 << 20);
    EXPECT_FALSE(huge.append(std::string("\x82\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 10)));
}

TEST(Utf8, RepairsBadSequencesAndValidatesGoodOnes) {
    EXPECT_TRUE(isValidUtf8("plain \xC3\xA9 \xF0\x9F\x8E\xB5"));
    EXPECT_FALSE(isValidUtf8("\xC0\x80"));      // overlong
    EXPECT_FALSE(isValidUtf8("\xED\xA0\x80"));  // surrogate
    EXPECT_FALSE(isValidUtf8("\xF0\x9F\x8E"));  // cut short
    EXPECT_EQ(repairUtf8("a\xFF"
                         "b"),
              "a\xEF\xBF\xBD"
              "b");
    EXPECT_EQ(percentDecode("%41%2"), std::nullopt);
    EXPECT_EQ(percentDecode("%C3%A9"), "\xC3\xA9");
    EXPECT_EQ(percentDecode("%FF"), std::nullopt);
}

}  // namespace
}  // namespace vt::net
