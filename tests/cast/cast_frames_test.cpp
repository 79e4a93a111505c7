#include <gtest/gtest.h>

#include <string>

#include "cast/cast_frame_reader.h"
#include "cast/cast_message.h"

namespace vt::cast {
namespace {

CastMessage sample(std::string payload = R"({"type":"PING"})") {
    return {"sender-0", "receiver-0", std::string(kHeartbeatNamespace), std::move(payload)};
}

std::string frame(const std::string& body) {
    std::string out;
    const auto n = static_cast<uint32_t>(body.size());
    out.push_back(static_cast<char>(n >> 24));
    out.push_back(static_cast<char>(n >> 16));
    out.push_back(static_cast<char>(n >> 8));
    out.push_back(static_cast<char>(n));
    return out + body;
}

// A message whose encoded form is exactly `size` bytes, the payload taking
// up the rest (a two-byte or three-byte length prefix is accounted for).
CastMessage messageOfEncodedSize(size_t size) {
    CastMessage message = sample("");
    const size_t fixed = message.encoded().size();
    for (size_t payload = size - fixed; payload + 4 > size - fixed; --payload) {
        message.payload.assign(payload, 'a');
        if (message.encoded().size() == size) return message;
    }
    ADD_FAILURE() << "no payload length fits " << size;
    return message;
}

TEST(CastMessage, EncodesEveryFieldInOrderAndDecodesBack) {
    const CastMessage message = sample();
    const std::string bytes = message.encoded();
    // version 0, source, destination, namespace, payload type 0, payload text.
    ASSERT_GE(bytes.size(), 14u);
    EXPECT_EQ(bytes.substr(0, 4), std::string("\x08\x00\x12\x08", 4));
    EXPECT_EQ(bytes.substr(4, 8), "sender-0");
    const auto typeAt = bytes.find(std::string("\x28\x00\x32", 3));
    EXPECT_NE(typeAt, std::string::npos);
    EXPECT_EQ(CastMessage::decode(bytes), message);

    const std::string framed = message.framed();
    EXPECT_EQ(framed, frame(bytes));

    // Non-ASCII text and a payload long enough for a two-byte length.
    CastMessage wide = sample(std::string(300, 'x') + "é");
    EXPECT_EQ(CastMessage::decode(wide.encoded()), wide);
}

TEST(CastMessage, SkipsUnknownFieldsAndLeavesMissingTextsEmpty) {
    std::string bytes;
    bytes += std::string("\x08\x96\x01", 3);          // version 150, a two-byte varint
    bytes += std::string("\x3A\x03\x01\x02\xFF", 5);  // field 7, binary payload: skipped
    bytes += std::string(
        "\x22\x03"
        "abc",
        5);                                    // namespace
    bytes += std::string("\x78\x05", 2);       // field 15 varint
    bytes += std::string("\x82\x01\x01z", 4);  // field 16, two-byte key
    const auto decoded = CastMessage::decode(bytes);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->nameSpace, "abc");
    EXPECT_EQ(decoded->source, "");
    EXPECT_EQ(decoded->payload, "");
    EXPECT_EQ(CastMessage::decode(""), CastMessage{});
}

TEST(CastMessage, RefusesMalformedInput) {
    EXPECT_FALSE(CastMessage::decode(std::string("\x0D\x00\x00\x00\x00", 5)))
        << "fixed32 wire type";
    EXPECT_FALSE(
        CastMessage::decode(std::string("\x12\x05"
                                        "abc",
                                        5)))
        << "length past the end";
    EXPECT_FALSE(CastMessage::decode(std::string("\x12\xFF\xFF\xFF\xFF\x0F", 6))) << "huge length";
    EXPECT_FALSE(CastMessage::decode(std::string("\x08\x80\x80", 3))) << "varint runs off the end";
    EXPECT_FALSE(CastMessage::decode(std::string(11, '\x80'))) << "varint over ten bytes";
    EXPECT_FALSE(CastMessage::decode(std::string("\x32\x02\xC3\x28", 4))) << "payload not UTF-8";
    EXPECT_FALSE(CastMessage::decode(std::string("\x12", 1))) << "key without a length";
}

TEST(CastMessage, JsonIsAnObjectOrEmpty) {
    EXPECT_EQ(sample(R"({"type":"PONG","n":1})").json()["n"], 1);
    EXPECT_EQ(sample(R"({"type":"PONG"})").type(), "PONG");
    EXPECT_TRUE(sample("[1,2]").json().empty());
    EXPECT_TRUE(sample("{broken").json().empty());
    EXPECT_EQ(sample(R"({"type":3})").type(), "");
}

TEST(CastFrameReader, DeliversSplitAndJoinedFramesOnceInOrder) {
    const std::string first = sample(R"({"type":"A"})").framed();
    const std::string second = sample(R"({"type":"B"})").framed();

    CastFrameReader reader;
    // One frame over three reads, the cut inside the length too.
    auto got = reader.append(first.substr(0, 2));
    ASSERT_TRUE(got);
    EXPECT_TRUE(got->empty());
    got = reader.append(first.substr(2, 10));
    ASSERT_TRUE(got);
    EXPECT_TRUE(got->empty());
    got = reader.append(first.substr(12) + second + second.substr(0, 5));
    ASSERT_TRUE(got);
    ASSERT_EQ(got->size(), 2u);
    EXPECT_EQ((*got)[0].type(), "A");
    EXPECT_EQ((*got)[1].type(), "B");
    EXPECT_EQ(reader.buffered(), 5u);
    got = reader.append(second.substr(5));
    ASSERT_TRUE(got);
    ASSERT_EQ(got->size(), 1u);
    EXPECT_EQ(reader.buffered(), 0u);
}

TEST(CastFrameReader, AcceptsExactlyOneMebibyteAndEndsOneByteLater) {
    const CastMessage largest = messageOfEncodedSize(kMaxCastFrameBytes);
    ASSERT_EQ(largest.encoded().size(), kMaxCastFrameBytes);
    CastFrameReader reader;
    auto got = reader.append(largest.framed());
    ASSERT_TRUE(got);
    ASSERT_EQ(got->size(), 1u);
    EXPECT_EQ((*got)[0].payload.size(), largest.payload.size());

    // The length alone condemns the frame: no need to wait for its bytes.
    CastFrameReader over;
    EXPECT_FALSE(over.append(std::string("\x00\x10\x00\x01", 4)));
    EXPECT_FALSE(over.append(sample().framed())) << "a broken stream stays broken";
}

TEST(CastFrameReader, ABadMessageFailsTheWholeRead) {
    CastFrameReader reader;
    const std::string good = sample().framed();
    EXPECT_FALSE(reader.append(good + frame(std::string("\x0D\x00\x00\x00\x00", 5))));
}

}  // namespace
}  // namespace vt::cast
