#include "airplay_tool/rtp_packets.h"

namespace vt::airplay_tool {

namespace {
constexpr uint8_t kVersion2 = 0x80;
constexpr uint8_t kExtensionBit = 0x10;
constexpr uint8_t kMarkerBit = 0x80;
// Bytes 2-3 of a sync packet: 7 asks the receiver to add its fixed 11025 frames.
constexpr uint16_t kSyncWithFixedOffset = 7;
constexpr size_t kResendRequestBytes = 8;
}  // namespace

uint16_t readU16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
uint32_t readU32(const uint8_t* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
void writeU16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}
void writeU32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

static void writeNtp(uint8_t* p, NtpTime t) {
    writeU32(p, static_cast<uint32_t>(t >> 32));
    writeU32(p + 4, static_cast<uint32_t>(t));
}

void writeAudioHeader(std::span<uint8_t, kRtpHeaderBytes> out, bool marker, uint16_t seq,
                      uint32_t timestamp, uint32_t ssrc) {
    out[0] = kVersion2;
    out[1] = static_cast<uint8_t>(kPayloadAudio | (marker ? kMarkerBit : 0));
    writeU16(&out[2], seq);
    writeU32(&out[4], timestamp);
    writeU32(&out[8], ssrc);
}

std::array<uint8_t, kSyncPacketBytes> makeSyncPacket(bool first, uint32_t rtpNowLessLatency,
                                                     NtpTime ntpNow, uint32_t rtpNow) {
    std::array<uint8_t, kSyncPacketBytes> p{};
    p[0] = static_cast<uint8_t>(kVersion2 | (first ? kExtensionBit : 0));
    p[1] = kPayloadSync | kMarkerBit;
    writeU16(&p[2], kSyncWithFixedOffset);
    writeU32(&p[4], rtpNowLessLatency);
    writeNtp(&p[8], ntpNow);
    writeU32(&p[16], rtpNow);
    return p;
}

std::optional<NtpTime> parseTimingRequest(std::span<const uint8_t> packet) {
    if (packet.size() < kTimingPacketBytes) return std::nullopt;
    if ((packet[1] & 0x7f) != kPayloadTimingRequest) return std::nullopt;
    return NtpTime{readU32(&packet[24])} << 32 | readU32(&packet[28]);
}

std::array<uint8_t, kTimingPacketBytes> makeTimingReply(NtpTime origin, NtpTime received,
                                                        NtpTime transmitted) {
    std::array<uint8_t, kTimingPacketBytes> p{};
    p[0] = kVersion2;
    p[1] = kPayloadTimingReply | kMarkerBit;
    writeU16(&p[2], 7);
    writeNtp(&p[8], origin);
    writeNtp(&p[16], received);
    writeNtp(&p[24], transmitted);
    return p;
}

std::optional<ResendRequest> parseResendRequest(std::span<const uint8_t> packet) {
    if (packet.size() < kResendRequestBytes) return std::nullopt;
    if ((packet[1] & 0x7f) != kPayloadResendRequest) return std::nullopt;
    return ResendRequest{readU16(&packet[4]), readU16(&packet[6])};
}

std::vector<uint8_t> makeResendReply(std::span<const uint8_t> original) {
    std::vector<uint8_t> out(4 + original.size());
    out[0] = kVersion2;
    out[1] = kPayloadResendReply | kMarkerBit;
    writeU16(&out[2], 1);
    std::copy(original.begin(), original.end(), out.begin() + 4);
    return out;
}

}  // namespace vt::airplay_tool
