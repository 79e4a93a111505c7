#include "airplay_tool/ap2_rtp_packets.h"

#include <algorithm>

#include "airplay_tool/hap/hap_crypto.h"

namespace vt::airplay_tool {

namespace {
constexpr uint8_t kVersion2 = 0x80;
constexpr uint8_t kExtensionBit = 0x10;
constexpr uint8_t kMarkerBit = 0x80;
// Bytes 2-3: the packet's length in 32-bit words, less one.
constexpr uint16_t kPtpSyncLengthWords = kPtpSyncPacketBytes / 4 - 1;
constexpr size_t kAadBegin = 4;
constexpr size_t kNonceZeroBytes = 4;
}  // namespace

size_t sealAudioPacket(const hap::Bytes& key, std::span<uint8_t> packet, size_t payloadBytes,
                       uint64_t counter) {
    hap::Bytes nonce(hap::kChachaNonceBytes, 0);
    for (size_t i = 0; i < kPacketNonceTailBytes; ++i)
        nonce[kNonceZeroBytes + i] = static_cast<uint8_t>(counter >> (8 * i));
    const hap::Bytes aad(packet.begin() + kAadBegin, packet.begin() + kRtpHeaderBytes);
    const hap::Bytes plain(packet.begin() + kRtpHeaderBytes,
                           packet.begin() + kRtpHeaderBytes + payloadBytes);
    const hap::Bytes sealed = hap::chachaSeal(key, nonce, aad, plain);
    uint8_t* out = packet.data() + kRtpHeaderBytes;
    std::copy(sealed.begin(), sealed.end(), out);
    std::copy(nonce.begin() + kNonceZeroBytes, nonce.end(), out + sealed.size());
    return kRtpHeaderBytes + sealed.size() + kPacketNonceTailBytes;
}

std::array<uint8_t, kPtpSyncPacketBytes> makePtpSyncPacket(bool first, uint32_t heardRtp,
                                                           int64_t ptpNs, uint32_t sendingRtp,
                                                           uint64_t clockID) {
    std::array<uint8_t, kPtpSyncPacketBytes> p{};
    p[0] = static_cast<uint8_t>(kVersion2 | (first ? kExtensionBit : 0));
    p[1] = kPayloadPtpSync | kMarkerBit;
    writeU16(&p[2], kPtpSyncLengthWords);
    writeU32(&p[4], heardRtp + kSyncAnchorFrames);
    const auto ns = static_cast<uint64_t>(ptpNs);
    writeU32(&p[8], static_cast<uint32_t>(ns >> 32));
    writeU32(&p[12], static_cast<uint32_t>(ns));
    writeU32(&p[16], sendingRtp);
    writeU32(&p[20], static_cast<uint32_t>(clockID >> 32));
    writeU32(&p[24], static_cast<uint32_t>(clockID));
    return p;
}

}  // namespace vt::airplay_tool
