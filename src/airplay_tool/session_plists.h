// The binary plists of an AirPlay 2 session: the session SETUP (our timing),
// SETPEERS, the stream SETUP of a realtime ALAC stream, and the receiver's
// answers to the two SETUPs, read by key through libplist. A receiver's
// answer is bounded, and every field it lacks or gives with a wrong type or
// out of range leaves the answer unusable rather than guessed at.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "airplay_tool/hap/bytes.h"
#include "airplay_tool/ptp/session_clock.h"

namespace vt::airplay_tool {

inline constexpr size_t kMaxSetupReplyBytes = 64 * 1024;
inline constexpr const char* kBinaryPlistType = "application/x-apple-binary-plist";

// Realtime audio in RTP over UDP, as opposed to buffered (103) over TCP.
inline constexpr int kStreamTypeRealtime = 96;
inline constexpr int kCompressionAlac = 2;
// The `audioFormat` bit of ALAC at 44.1 kHz, 16 bits, stereo.
inline constexpr uint64_t kAlacFormat44100x16x2 = 0x40000;
inline constexpr size_t kStreamKeyBytes = 32;

struct SessionSetup {
    std::string deviceID;  // ours, as "AA:BB:CC:DD:EE:FF"
    std::string sessionUUID;
    std::string groupUUID;
    std::string name;
    // PTP: our clock in `timingPeerInfo`; else NTP with our timing port.
    std::optional<ptp::TimingPeerInfo> ptpPeer;
    int ntpTimingPort = 0;
};
std::string buildSessionSetup(const SessionSetup& setup);

struct SessionSetupReply {
    int eventPort = 0;
};
std::optional<SessionSetupReply> parseSessionSetupReply(std::string_view body);

// SETPEERS: the addresses whose clocks make the group, receiver first.
std::string buildSetPeers(const std::vector<std::string>& addresses);

struct StreamSetup {
    hap::Bytes streamKey;  // `shk`, kStreamKeyBytes
    int controlPort = 0;   // ours: resend requests come here
    uint64_t connectionID = 0;
    uint32_t latencyMinFrames = 0;
    uint32_t latencyMaxFrames = 0;
};
std::string buildStreamSetup(const StreamSetup& setup);

struct StreamSetupReply {
    int dataPort = 0;
    int controlPort = 0;
    std::optional<uint64_t> audioBufferSize;
    // The receiver's own bounds on the latency, where it gives them.
    std::optional<uint64_t> latencyMinFrames;
    std::optional<uint64_t> latencyMaxFrames;
};
std::optional<StreamSetupReply> parseStreamSetupReply(std::string_view body);

}  // namespace vt::airplay_tool
