// IEEE 1588-2008 (PTP version 2) messages as they travel in UDP: the common
// 34-byte header and the bodies of the messages a two-step clock uses with
// end-to-end delay measurement. Everything is big-endian on the wire.
// Parsing never trusts the packet: a message is read only when the datagram,
// its own length field and the body its type needs all agree.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace vt::airplay_tool::ptp {

inline constexpr uint16_t eventPort = 319;    // Sync, Delay_Req: time-stamped
inline constexpr uint16_t generalPort = 320;  // Announce, Follow_Up, Delay_Resp
inline constexpr const char* multicastGroup = "224.0.1.129";
// Where peer-delay messages go: never forwarded past the link.
inline constexpr const char* peerDelayGroup = "224.0.0.107";
inline constexpr size_t headerBytes = 34;
inline constexpr uint8_t ptpVersion = 2;

enum class MessageType : uint8_t {
    sync = 0x0,
    delayReq = 0x1,
    pdelayReq = 0x2,
    pdelayResp = 0x3,
    followUp = 0x8,
    delayResp = 0x9,
    pdelayRespFollowUp = 0xA,
    announce = 0xB,
    signaling = 0xC,
    management = 0xD,
};

// flagField as one big-endian 16-bit number.
namespace flag {
inline constexpr uint16_t twoStep = 0x0200;
inline constexpr uint16_t unicast = 0x0400;
inline constexpr uint16_t utcOffsetValid = 0x0004;
inline constexpr uint16_t ptpTimescale = 0x0008;
}  // namespace flag

using ClockIdentity = std::array<uint8_t, 8>;

struct PortIdentity {
    ClockIdentity clock{};
    uint16_t port = 0;
    bool operator==(const PortIdentity&) const = default;
};

// Seconds (48 bits on the wire) and nanoseconds below one second.
struct Timestamp {
    uint64_t seconds = 0;
    uint32_t nanoseconds = 0;
    static Timestamp fromNs(int64_t ns);
    int64_t toNs() const;
    bool operator==(const Timestamp&) const = default;
};

struct ClockQuality {
    uint8_t clockClass = 248;
    uint8_t accuracy = 0xFE;
    uint16_t variance = 0xFFFF;
    bool operator==(const ClockQuality&) const = default;
};

struct AnnounceBody {
    int16_t currentUtcOffset = 0;
    uint8_t priority1 = 128;
    ClockQuality quality;
    uint8_t priority2 = 128;
    ClockIdentity grandmaster{};
    uint16_t stepsRemoved = 0;
    uint8_t timeSource = 0xA0;  // internal oscillator
    bool operator==(const AnnounceBody&) const = default;
};

struct Message {
    MessageType type = MessageType::sync;
    uint8_t transportSpecific = 0;
    uint8_t domain = 0;
    uint16_t flags = 0;
    int64_t correction = 0;  // nanoseconds times 2^16
    PortIdentity source;
    uint16_t sequenceId = 0;
    int8_t logInterval = 0x7F;
    // originTimestamp (Sync, Delay_Req, Pdelay_Req, Announce),
    // preciseOriginTimestamp (Follow_Up), receiveTimestamp (Delay_Resp),
    // requestReceiptTimestamp (Pdelay_Resp) or responseOriginTimestamp
    // (Pdelay_Resp_Follow_Up).
    Timestamp timestamp;
    PortIdentity requesting;  // Delay_Resp, Pdelay_Resp and its Follow_Up
    AnnounceBody announce;    // Announce only
    bool operator==(const Message&) const = default;
};

// The body length a message of this type needs, or nothing for the types
// this clock neither sends nor reads (they are recognised and skipped).
std::optional<size_t> bodyBytes(MessageType type);

// Nothing when the datagram is not a PTP version 2 message of a known type,
// is shorter than its type needs or than its own length field says, or holds
// a time stamp with 10^9 nanoseconds or more.
std::optional<Message> parseMessage(std::span<const uint8_t> datagram);
std::vector<uint8_t> encodeMessage(const Message& message);

// The correction field in nanoseconds (it counts 2^-16 ns).
inline int64_t correctionNs(const Message& m) {
    return m.correction / 65536;
}

}  // namespace vt::airplay_tool::ptp
