#include "media_packets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "airplay_tool/ptp/ptp_message.h"
#include "alac_verbatim.h"

namespace vt::airplay_test {

namespace ptp = vt::airplay_tool::ptp;

namespace {

constexpr size_t kHeaderBytes = 12;
constexpr size_t kTagBytes = 16;
constexpr size_t kNonceTailBytes = 8;
constexpr size_t kSyncBytes = 28;
constexpr uint32_t kAnchorFrames = 11035;
constexpr uint8_t kRealtimePayloadType = 0x60;
constexpr uint8_t kSyncType = 0x57;
constexpr uint8_t kNtpSyncType = 0x54;
constexpr uint8_t kTimingReplyType = 0x53;
constexpr size_t kNtpSyncBytes = 20;
constexpr int64_t kNtpFixedLatencyFrames = 11025;
constexpr int64_t kNtpUnixEpochSeconds = 2'208'988'800;
constexpr uint8_t kResendType = 0x56;
constexpr size_t kLostPacketIndex = 20;
constexpr int kMaxResendCount = 64;
constexpr int kPtpEventPort = 319;

void requestResend(ReceiverState& s, uint16_t seq, uint16_t count) {
    uint8_t request[8] = {0x80,
                          0xD5,
                          0x00,
                          0x01,
                          static_cast<uint8_t>(seq >> 8),
                          static_cast<uint8_t>(seq),
                          static_cast<uint8_t>(count >> 8),
                          static_cast<uint8_t>(count)};
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(s.senderControlPort));
    inet_pton(AF_INET, s.senderAddress.c_str(), &to.sin_addr);
    sendto(s.controlFd, request, sizeof request, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
}

}  // namespace

void audioPacket(ReceiverState& s, std::span<const uint8_t> p, bool resent) {
    if (!s.streamSetUp) {
        s.violations.push_back("audio before the stream SETUP");
        return;
    }
    if (p.size() < kHeaderBytes + kTagBytes + kNonceTailBytes + 1 || p[0] != 0x80 ||
        (p[1] & 0x7f) != kRealtimePayloadType) {
        s.violations.push_back("a datagram on the data port that is no audio packet");
        return;
    }
    const uint16_t seq = be16(&p[2]);
    const uint32_t rtp = be32(&p[4]);
    if (s.ptp && be32(&p[8]) != 0) s.violations.push_back("an SSRC other than 0 under PTP");
    if (!resent) {
        // What a gap in the numbers lost on the way (a busy host drops
        // datagrams too) is asked for again, as receivers do.
        const auto ahead = s.newestSeq ? static_cast<int16_t>(seq - *s.newestSeq) : int16_t{1};
        if (ahead > 1)
            requestResend(s, static_cast<uint16_t>(*s.newestSeq + 1),
                          static_cast<uint16_t>(std::min<int>(ahead - 1, kMaxResendCount)));
        if (ahead > 0) s.newestSeq = seq;
    }
    if (s.flushFrom && !resent) {
        // Sent before the FLUSH and come after it: dropped, as receivers do.
        if (static_cast<int16_t>(seq - s.flushFrom->first) < 0) return;
        if (static_cast<int32_t>(rtp - s.flushFrom->second) < 0)
            s.violations.push_back("audio after a FLUSH timed before its point");
    }
    if (!resent && ++s.audioPackets == kLostPacketIndex) {
        // Lost on the way: asked for again at once, before the next shows the gap.
        s.lostSeq = seq;
        requestResend(s, seq, 1);
        return;
    }
    if (resent && s.lostSeq == seq) ++s.resent;
    uint64_t tail = 0;
    for (size_t i = 0; i < kNonceTailBytes; ++i)
        tail |= uint64_t{p[p.size() - kNonceTailBytes + i]} << (8 * i);
    if (auto [it, fresh] = s.nonces.emplace(tail, seq); !fresh && it->second != seq)
        s.violations.push_back("a nonce used for two packets");
    hap::Bytes nonce(4 + kNonceTailBytes, 0);
    for (size_t i = 0; i < kNonceTailBytes; ++i) nonce[4 + i] = p[p.size() - kNonceTailBytes + i];
    const hap::Bytes aad(p.begin() + 4, p.begin() + kHeaderBytes);
    const hap::Bytes sealed(p.begin() + kHeaderBytes, p.end() - kNonceTailBytes);
    const auto frame = hap::chachaOpen(s.streamKey, nonce, aad, sealed);
    if (!frame) {
        s.violations.push_back("an audio packet that does not open with the stream's key");
        return;
    }
    const auto samples = decodeVerbatimAlac(*frame, kFramesPerPacket);
    if (!samples) {
        s.violations.push_back("an audio packet whose ALAC frame does not decode");
        return;
    }
    if (!s.firstRtp) {
        if (!(p[1] & 0x80)) s.violations.push_back("the first audio packet has no marker");
        s.firstRtp = rtp;
    }
    const uint32_t offset = rtp - *s.firstRtp;
    if (offset % kFramesPerPacket != 0) s.violations.push_back("an RTP time off the packet grid");
    s.packets[offset] = *samples;
    s.frames += samples->size() / 2;
    for (int16_t v : *samples) s.peak = std::max(s.peak, std::abs(int{v}));
}

namespace {

// Where the sync packets put the stream: `heard` is heard at `ns`.
void anchorAt(ReceiverState& s, uint32_t heard, int64_t ns) {
    if (!s.anchor) {
        s.anchor = {heard, ns};
        return;
    }
    const int64_t frames = static_cast<int32_t>(heard - s.anchor->first);
    const int64_t expected = s.anchor->second + frames * kNsPerSecond / kSampleRate;
    s.syncDeviationNs = std::max(s.syncDeviationNs, std::abs(ns - expected));
}

// Under PTP: bytes 4-7 less 11035 frames are heard at the PTP time of 8-15.
void ptpSync(ReceiverState& s, std::span<const uint8_t> p) {
    if (be64(&p[20]) != s.clockID)
        s.violations.push_back("a sync packet names a clock other than the SETUP's");
    if (static_cast<int32_t>(be32(&p[16]) - be32(&p[4])) < -static_cast<int32_t>(kAnchorFrames))
        s.violations.push_back("a sync packet with a negative latency");
    anchorAt(s, be32(&p[4]) - kAnchorFrames, static_cast<int64_t>(be64(&p[8])));
}

// Under NTP: bytes 16-19 are heard at the NTP time of 8-15 plus the latency,
// which is their distance from bytes 4-7 and the receiver's fixed 11025.
void ntpSync(ReceiverState& s, std::span<const uint8_t> p) {
    const uint32_t now = be32(&p[16]);
    const int64_t latency = int64_t{now - be32(&p[4])} + kNtpFixedLatencyFrames;
    const uint64_t ntp = be64(&p[8]);
    const int64_t unixNs = (static_cast<int64_t>(ntp >> 32) - kNtpUnixEpochSeconds) * kNsPerSecond +
                           static_cast<int64_t>(((ntp & 0xffffffffu) * kNsPerSecond) >> 32);
    anchorAt(s, now, unixNs + latency * kNsPerSecond / kSampleRate);
}

}  // namespace

void controlPacket(ReceiverState& s, std::span<const uint8_t> p) {
    if (p.size() < 4) {
        s.violations.push_back("a runt on the control port");
        return;
    }
    const uint8_t type = p[1] & 0x7f;
    if (type == kResendType) {
        audioPacket(s, p.subspan(4), true);
        return;
    }
    if (type == kTimingReplyType && !s.ptp) return;  // the clock is ours, on this host
    const bool ptpSync =
        s.ptp && type == kSyncType && p.size() == kSyncBytes && be16(&p[2]) == kSyncBytes / 4 - 1;
    const bool ntpSync =
        !s.ptp && type == kNtpSyncType && p.size() == kNtpSyncBytes && be16(&p[2]) == 7;
    if (!ptpSync && !ntpSync) {
        s.violations.push_back("a datagram on the control port that is neither sync nor resend");
        return;
    }
    if (s.syncs++ == 0 && p[0] != 0x90)
        s.violations.push_back("the first sync is not marked first");
    if (ptpSync)
        vt::airplay_test::ptpSync(s, p);
    else
        vt::airplay_test::ntpSync(s, p);
}

void sendTimingRequest(ReceiverState& s) {
    uint8_t request[32] = {0x80, 0xD2, 0x00, 0x07};
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(s.senderTimingPort));
    inet_pton(AF_INET, s.senderAddress.c_str(), &to.sin_addr);
    sendto(s.controlFd, request, sizeof request, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
}

void sendDelayRequest(ReceiverState& s, uint16_t sequence) {
    ptp::Message m;
    m.type = ptp::MessageType::delayReq;
    m.transportSpecific = 1;
    m.flags = ptp::flag::unicast;
    m.source.clock = {0x0a, 0x0b, 0x0c, 0xff, 0xfe, 0x0d, 0x0e, 0x0f};
    m.source.port = 1;
    m.sequenceId = sequence;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    m.timestamp = ptp::Timestamp::fromNs(int64_t{now.tv_sec} * kNsPerSecond + now.tv_nsec);
    const std::vector<uint8_t> bytes = ptp::encodeMessage(m);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(kPtpEventPort);
    inet_pton(AF_INET, s.senderAddress.c_str(), &to.sin_addr);
    sendto(s.ptpFd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
}

}  // namespace vt::airplay_test
