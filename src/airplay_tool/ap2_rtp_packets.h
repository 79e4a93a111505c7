// The UDP packets of an AirPlay 2 realtime stream that differ from AirPlay
// 1's: audio sealed with ChaCha20-Poly1305, and the sync packet that ties an
// RTP time to the PTP clock. Resend requests and replies are AirPlay 1's.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "airplay_tool/hap/bytes.h"
#include "airplay_tool/rtp_packets.h"

namespace vt::airplay_tool {

inline constexpr size_t kPacketTagBytes = 16;
// The last 8 bytes of the nonce travel at the end of each packet.
inline constexpr size_t kPacketNonceTailBytes = 8;
inline constexpr size_t kSealedPacketExtraBytes = kPacketTagBytes + kPacketNonceTailBytes;
inline constexpr size_t kPtpSyncPacketBytes = 28;
inline constexpr uint8_t kPayloadPtpSync = 0x57;
// A receiver places the frame its sync packet names in bytes 4-7 this many
// frames after the PTP time the packet gives: what it hears at that time is
// the frame this much earlier (shairport-sync's reading of Apple's senders).
inline constexpr uint32_t kSyncAnchorFrames = 11035;

// Seals in place the `payloadBytes` after the 12-byte RTP header of `packet`
// and appends the tag and the nonce's tail; the header (bytes 4-11: time
// stamp and SSRC) is the associated data. The nonce is four zero bytes and
// `counter`, little-endian, which must never repeat under one key. Returns
// the packet's length; `packet` has room for kSealedPacketExtraBytes more.
size_t sealAudioPacket(const hap::Bytes& key, std::span<uint8_t> packet, size_t payloadBytes,
                       uint64_t counter);

// `first` marks the first after the stream begins or is flushed. The receiver
// hears `heardRtp` at `ptpNs` (PTP nanoseconds of clock `clockID`);
// `sendingRtp` is the frame going out now, whose distance from the first
// frame field is the latency the receiver keeps in hand.
std::array<uint8_t, kPtpSyncPacketBytes> makePtpSyncPacket(bool first, uint32_t heardRtp,
                                                           int64_t ptpNs, uint32_t sendingRtp,
                                                           uint64_t clockID);

}  // namespace vt::airplay_tool
