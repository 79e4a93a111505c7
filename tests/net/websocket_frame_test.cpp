#include "net/websocket_frame.h"

#include <gtest/gtest.h>

#include "net/text.h"

#include <array>

namespace vt::net {
namespace {

using WebSocketFrame::From;
using WebSocketFrame::Opcode;
using WebSocketFrame::Parser;

constexpr std::array<uint8_t, 4> kMask{1, 2, 3, 4};

// The close code a server's parser answers a client's bytes with, or 0 when
// they are fine.
uint16_t fromClient(std::string_view bytes, uint64_t limit = 1024) {
    Parser parser(limit, From::client);
    if (parser.append(bytes)) return 0;
    return parser.closeCode().value_or(uint16_t{1});
}

std::string masked(uint8_t firstByte, std::string_view payload) {
    std::string frame = WebSocketFrame::encode(Opcode::text, payload, true, kMask);
    frame[0] = static_cast<char>(firstByte);
    return frame;
}

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
        Parser parser(1 << 20, From::server);
        const auto frames = parser.append(frame);
        ASSERT_TRUE(frames);
        ASSERT_EQ(frames->size(), 1u);
        EXPECT_EQ((*frames)[0].payload.size(), size);
    }
}

TEST(WebSocketFrame, ParsesAClientsMaskedFramesDeliveredByteByByte) {
    const std::string both = WebSocketFrame::encode(Opcode::text, "hello", true, kMask) +
                             WebSocketFrame::encode(Opcode::text, "world", false, kMask);
    Parser parser(1024, From::client);
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

// RFC 6455, sections 5.1 to 5.5 and 7.4: what a client may not send.
TEST(WebSocketFrame, AClientBreakingTheFramingRulesIsAProtocolError) {
    const uint16_t protocolError = 1002;
    EXPECT_EQ(fromClient(WebSocketFrame::encode(Opcode::text, "unmasked")), protocolError);
    EXPECT_EQ(fromClient(masked(0x80 | 0x40 | 0x01, "rsv1")), protocolError);
    EXPECT_EQ(fromClient(masked(0x80 | 0x10 | 0x02, "rsv3")), protocolError);
    EXPECT_EQ(fromClient(masked(0x80 | 0x03, "opcode 3")), protocolError);
    EXPECT_EQ(fromClient(masked(0x80 | 0x0B, "opcode 11")), protocolError);
    EXPECT_EQ(fromClient(masked(0x09, "a ping in pieces")), protocolError);
    EXPECT_EQ(fromClient(WebSocketFrame::encode(Opcode::ping, std::string(126, 'p'), true, kMask)),
              protocolError);
    EXPECT_EQ(fromClient(WebSocketFrame::encode(Opcode::close, "\x03", true, kMask)),
              protocolError);
    EXPECT_EQ(fromClient(WebSocketFrame::encode(Opcode::close, "\x03\xED", true, kMask)),
              protocolError);  // 1005 is never sent
    // A server's frames come unmasked, and a masked one is the breach.
    Parser client(1024, From::server);
    EXPECT_FALSE(client.append(WebSocketFrame::encode(Opcode::text, "x", true, kMask)));
    EXPECT_EQ(client.closeCode(), uint16_t{1002});

    // What is allowed at the edges.
    const auto ok = [](uint16_t code) { return code == 0; };
    EXPECT_TRUE(
        ok(fromClient(WebSocketFrame::encode(Opcode::ping, std::string(125, 'p'), true, kMask))));
    EXPECT_TRUE(ok(fromClient(WebSocketFrame::encode(Opcode::close, "", true, kMask))));
    EXPECT_TRUE(ok(fromClient(WebSocketFrame::encode(Opcode::close,
                                                     "\x03\xE8"
                                                     "bye",
                                                     true, kMask))));
    EXPECT_TRUE(
        ok(fromClient(WebSocketFrame::encode(Opcode::close, "\x0F\xA2", true, kMask))));  // 4002
}

TEST(WebSocketFrame, AFrameClaimingMoreThanTheLimitIsTooBigBeforeItArrives) {
    Parser parser(100, From::client);
    EXPECT_TRUE(
        parser.append(WebSocketFrame::encode(Opcode::binary, std::string(100, 'a'), true, kMask)));
    Parser small(100, From::client);
    // Only the header of a 101-byte frame: refused at once, without waiting for the rest.
    EXPECT_FALSE(small.append(std::string("\x82\xE5", 2)));
    EXPECT_EQ(small.closeCode(), uint16_t{1009});
    EXPECT_FALSE(small.append(WebSocketFrame::encode(Opcode::text, "after", true, kMask)));
    Parser huge(1 << 20, From::client);
    EXPECT_FALSE(huge.append(std::string("\x82\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 10)));
    EXPECT_EQ(huge.closeCode(), uint16_t{1009});
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
