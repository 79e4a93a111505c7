// The UDP packets of an AirPlay 1 stream, all big-endian: audio, sync, the
// timing exchange and resends.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace vt::airplay_tool {

inline constexpr size_t kRtpHeaderBytes = 12;
inline constexpr size_t kSyncPacketBytes = 20;
inline constexpr size_t kTimingPacketBytes = 32;
inline constexpr uint8_t kPayloadAudio = 0x60;
inline constexpr uint8_t kPayloadSync = 0x54;
inline constexpr uint8_t kPayloadTimingRequest = 0x52;
inline constexpr uint8_t kPayloadTimingReply = 0x53;
inline constexpr uint8_t kPayloadResendRequest = 0x55;
inline constexpr uint8_t kPayloadResendReply = 0x56;

// 64-bit NTP time: seconds in the high word, a binary fraction in the low.
using NtpTime = uint64_t;

void writeAudioHeader(std::span<uint8_t, kRtpHeaderBytes> out, bool marker, uint16_t seq,
                      uint32_t timestamp, uint32_t ssrc);

// `first` marks the first sync after RECORD or FLUSH. The receiver hears
// `rtpNow` at `ntpNow` plus the latency, which is rtpNow - rtpNowLessLatency
// plus the fixed 11025 frames the 7 in bytes 2-3 asks for.
std::array<uint8_t, kSyncPacketBytes> makeSyncPacket(bool first, uint32_t rtpNowLessLatency,
                                                     NtpTime ntpNow, uint32_t rtpNow);

// A timing request's transmit time, or nothing for anything else.
std::optional<NtpTime> parseTimingRequest(std::span<const uint8_t> packet);

std::array<uint8_t, kTimingPacketBytes> makeTimingReply(NtpTime origin, NtpTime received,
                                                        NtpTime transmitted);

struct ResendRequest {
    uint16_t firstSeq = 0;
    uint16_t count = 0;
};
std::optional<ResendRequest> parseResendRequest(std::span<const uint8_t> packet);

// `80 D6 00 01` followed by the original packet.
std::vector<uint8_t> makeResendReply(std::span<const uint8_t> original);

uint16_t readU16(const uint8_t* p);
uint32_t readU32(const uint8_t* p);
void writeU16(uint8_t* p, uint16_t v);
void writeU32(uint8_t* p, uint32_t v);

}  // namespace vt::airplay_tool
