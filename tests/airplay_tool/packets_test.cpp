// The UDP side's bytes: verbatim ALAC frames, RTP audio headers, sync packets,
// the timing exchange, resend requests and the backlog that answers them.
#include <gtest/gtest.h>

#include <vector>

#include "airplay_tool/alac_frame.h"
#include "airplay_tool/packet_backlog.h"
#include "airplay_tool/pcm_input.h"
#include "airplay_tool/rtp_packets.h"

using namespace vt::airplay_tool;

namespace {

// Reads the frame back by the format's own layout, MSB first.
struct BitReader {
    std::span<const uint8_t> bytes;
    size_t bit = 0;
    uint32_t get(int n) {
        uint32_t v = 0;
        for (int i = 0; i < n; ++i, ++bit) v = v << 1 | ((bytes[bit / 8] >> (7 - bit % 8)) & 1);
        return v;
    }
};

TEST(AlacFrame, HoldsEverySampleVerbatimBetweenHeaderAndEndTag) {
    std::vector<int16_t> samples(kFramesPerPacket * 2);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<int16_t>((i % 2 ? -1 : 1) * static_cast<int>(i * 91 % 32768));
    samples[0] = -32768;
    samples[1] = 32767;
    std::array<uint8_t, kAlacFrameBytes> frame{};
    packAlacStereo16(samples, frame);
    EXPECT_EQ(kAlacFrameBytes, 1412u);
    EXPECT_EQ(frame[0], 0x20);  // channel pair element, instance 0
    EXPECT_EQ(frame[1], 0x00);

    BitReader r{frame};
    EXPECT_EQ(r.get(3), 1u);   // channel pair
    EXPECT_EQ(r.get(4), 0u);   // instance
    EXPECT_EQ(r.get(12), 0u);  // unused
    EXPECT_EQ(r.get(1), 0u);   // no sample count: a full packet
    EXPECT_EQ(r.get(2), 0u);   // no byte shift
    EXPECT_EQ(r.get(1), 1u);   // not compressed
    for (size_t i = 0; i < samples.size(); ++i)
        ASSERT_EQ(static_cast<int16_t>(r.get(16)), samples[i]) << "sample " << i;
    EXPECT_EQ(r.get(3), 7u);  // end tag
    while (r.bit % 8) EXPECT_EQ(r.get(1), 0u);
    EXPECT_EQ(r.bit / 8, kAlacFrameBytes);
}

TEST(AlacFrame, AShortPacketEndsInSilence) {
    std::vector<int16_t> samples(10 * 2, 1000);
    std::array<uint8_t, kAlacFrameBytes> frame{};
    packAlacStereo16(samples, frame);
    BitReader r{frame};
    r.get(23);
    for (size_t f = 0; f < kFramesPerPacket; ++f) {
        ASSERT_EQ(static_cast<int16_t>(r.get(16)), f < 10 ? 1000 : 0);
        ASSERT_EQ(static_cast<int16_t>(r.get(16)), f < 10 ? 1000 : 0);
    }
}

TEST(PcmInput, TakesSixteenAndThirtyTwoBitMonoAndStereo) {
    int16_t out[4] = {};
    const uint8_t s16[] = {0x34, 0x12, 0xff, 0xff, 0x01};  // a trailing partial frame is left
    EXPECT_EQ(toStereo16({16, 2}, s16, out), 1u);
    EXPECT_EQ(out[0], 0x1234);
    EXPECT_EQ(out[1], -1);
    const uint8_t s32mono[] = {0x00, 0x00, 0x00, 0x80, 0xff, 0xff, 0xff, 0x7f};
    EXPECT_EQ(toStereo16({24, 1}, s32mono, out), 2u);
    EXPECT_EQ(out[0], -32768);
    EXPECT_EQ(out[1], -32768);  // mono goes to both sides
    EXPECT_EQ(out[2], 32767);
}

TEST(RtpPackets, AudioSyncAndTimingLayouts) {
    std::array<uint8_t, kRtpHeaderBytes> header{};
    writeAudioHeader(header, true, 0xBEEF, 0x01020304, 0xAABBCCDD);
    EXPECT_EQ(header, (std::array<uint8_t, 12>{0x80, 0xE0, 0xBE, 0xEF, 1, 2, 3, 4, 0xAA, 0xBB, 0xCC,
                                               0xDD}));
    writeAudioHeader(header, false, 1, 2, 3);
    EXPECT_EQ(header[1], 0x60);

    auto sync = makeSyncPacket(true, 1000, 0x1122334455667788ULL, 12025);
    EXPECT_EQ(sync[0], 0x90);  // extension bit on the first sync
    EXPECT_EQ(sync[1], 0xD4);
    EXPECT_EQ(readU16(&sync[2]), 7);  // the receiver adds its fixed latency
    EXPECT_EQ(readU32(&sync[4]), 1000u);
    EXPECT_EQ(readU32(&sync[8]), 0x11223344u);
    EXPECT_EQ(readU32(&sync[12]), 0x55667788u);
    EXPECT_EQ(readU32(&sync[16]), 12025u);
    EXPECT_EQ(makeSyncPacket(false, 0, 0, 0)[0], 0x80);

    std::array<uint8_t, 32> request{0x80, 0xD2, 0x00, 0x07};
    writeU32(&request[24], 0xCAFEBABE);
    writeU32(&request[28], 0x01);
    auto transmit = parseTimingRequest(request);
    ASSERT_TRUE(transmit);
    auto reply = makeTimingReply(*transmit, 0x10, 0x20);
    EXPECT_EQ(reply[1], 0xD3);
    EXPECT_EQ(readU32(&reply[8]), 0xCAFEBABEu);  // origin: the request's transmit time
    EXPECT_EQ(readU32(&reply[12]), 1u);
    EXPECT_EQ(readU32(&reply[20]), 0x10u);
    EXPECT_EQ(readU32(&reply[28]), 0x20u);
    EXPECT_FALSE(parseTimingRequest(std::span<const uint8_t>(request).first(31)));
    request[1] = 0xD5;
    EXPECT_FALSE(parseTimingRequest(request));
}

TEST(RtpPackets, ResendRequestsAreAnsweredFromTheBacklog) {
    const uint8_t request[] = {0x80, 0xD5, 0x00, 0x01, 0xFF, 0xFE, 0x00, 0x03};
    auto parsed = parseResendRequest(request);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->firstSeq, 0xFFFE);
    EXPECT_EQ(parsed->count, 3);
    EXPECT_FALSE(parseResendRequest(std::span<const uint8_t>(request).first(7)));

    PacketBacklog backlog(16);
    const std::vector<uint8_t> a(16, 0xA1), b(16, 0xB2);
    backlog.store(0xFFFF, a);
    backlog.store(0x0000, b);  // the sequence wraps
    EXPECT_EQ(backlog.find(0xFFFF), a);
    EXPECT_EQ(backlog.find(0x0000), b);
    EXPECT_TRUE(backlog.find(0x0001).empty());  // never sent
    // A packet is gone once its slot is taken by one kBacklogPackets later.
    backlog.store(static_cast<uint16_t>(0xFFFF + kBacklogPackets), b);
    EXPECT_TRUE(backlog.find(0xFFFF).empty());

    auto resend = makeResendReply(a);
    ASSERT_EQ(resend.size(), 20u);
    EXPECT_EQ(resend[1], 0xD6);
    EXPECT_EQ(readU16(&resend[2]), 1);
    EXPECT_TRUE(std::equal(a.begin(), a.end(), resend.begin() + 4));
}

}  // namespace
