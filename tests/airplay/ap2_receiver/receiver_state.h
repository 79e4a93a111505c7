// What the test receiver knows of its one session at a time, shared by
// its two threads (the control connection's and the media sockets') under
// the receiver's lock, with the numbers of the protocol both sides read.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "airplay_tool/hap/channel_cipher.h"
#include "airplay_tool/hap/hap_crypto.h"
#include "srp_server.h"

namespace vt::airplay_test {

inline constexpr int kSampleRate = 44100;
inline constexpr size_t kFramesPerPacket = 352;
inline constexpr int64_t kNsPerSecond = 1'000'000'000;

inline uint16_t be16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
inline uint32_t be32(const uint8_t* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
inline uint64_t be64(const uint8_t* p) {
    return uint64_t{be32(p)} << 32 | be32(p + 4);
}

struct ReceiverState {
    std::string address;
    std::vector<std::string> violations;
    int peak = 0;
    size_t frames = 0;
    std::vector<std::string> requests;
    // Session
    std::unique_ptr<SrpServer> srp;
    hap::Bytes pairingSecret;
    // A kept pairing, and the pair-verify under way.
    hap::KeyPair identity = hap::ed25519Generate();
    std::string controllerID;
    hap::Bytes controllerPublicKey;
    hap::KeyPair verifyEphemeral;
    hap::Bytes controllerEphemeral, verifyShared, verifyKey;
    bool ptp = false;
    bool tornDown = false;
    bool sessionSetUp = false;
    bool recorded = false;
    bool streamSetUp = false;
    uint64_t clockID = 0;
    std::string senderAddress;
    int senderControlPort = 0;
    int senderTimingPort = 0;  // NTP: where to ask the sender's time
    hap::Bytes streamKey;
    std::optional<double> volumeDb;
    std::string trackText;
    // Media
    int dataFd = -1, controlFd = -1, eventFd = -1, eventConnection = -1, ptpFd = -1;
    int dataPort = 0, controlPort = 0, eventPort = 0;
    std::optional<hap::FrameSealer> eventSealer;
    std::optional<hap::FrameOpener> eventOpener;
    std::string eventAnswers;  // what the sender said on the event connection, decrypted
    size_t audioPackets = 0;
    std::optional<uint16_t> lostSeq;
    std::optional<uint16_t> newestSeq;
    int resent = 0;
    std::map<uint64_t, uint16_t> nonces;  // tail -> seq
    std::optional<uint32_t> firstRtp;
    std::map<uint32_t, std::vector<int16_t>> packets;  // by offset from firstRtp
    std::optional<std::pair<uint32_t, int64_t>> anchor;
    // The last FLUSH's RTP-Info: the sequence number and RTP time from which
    // audio is new; what was sent before it is not played.
    std::optional<std::pair<uint16_t, uint32_t>> flushFrom;
    int syncs = 0;
    int64_t syncDeviationNs = 0;
};

}  // namespace vt::airplay_test
