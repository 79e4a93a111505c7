// The messages of a two-step PTP grandmaster, apart from any socket: what to
// announce, the Sync and the Follow_Up that carries its sending time, and the
// Delay_Resp to a follower's Delay_Req. The clock is this computer's
// CLOCK_REALTIME as it stands (an arbitrary timescale: PTP time is Unix time),
// so that a start given in Unix milliseconds is a PTP time as well.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "airplay_tool/ptp/ptp_message.h"

namespace vt::airplay_tool::ptp {

// AirPlay receivers keep time by the 802.1AS profile, whose messages carry
// transportSpecific (majorSdoId) 1.
inline constexpr uint8_t gptpTransportSpecific = 1;

// An EUI-64 clock identity from the device id we publish ("AA:BB:CC:DD:EE:FF"
// becomes AA:BB:CC:FF:FE:DD:EE:FF; 16 hex digits are taken as they are;
// anything else is hashed, with the locally administered bit set).
ClockIdentity clockIdentityFor(const std::string& deviceID);
std::string clockIdentityText(const ClockIdentity& id);  // 16 hex digits
// The clock identity as the signed 64-bit number AirPlay's timingPeerInfo carries.
int64_t clockIdentityNumber(const ClockIdentity& id);

class Grandmaster {
  public:
    static constexpr int8_t logSyncInterval = -3;     // 125 ms
    static constexpr int8_t logAnnounceInterval = 0;  // 1 s
    static constexpr int8_t logDelayReqInterval = 0;  // followers ask once a second
    static constexpr int64_t syncIntervalNs = 125'000'000;
    static constexpr int64_t announceIntervalNs = 1'000'000'000;
    static constexpr uint8_t domain = 0;

    explicit Grandmaster(ClockIdentity identity, uint8_t transportSpecific = gptpTransportSpecific);

    const PortIdentity& port() const { return port_; }
    Message announce(int64_t nowNs);
    // A two-step Sync; its time goes in the Follow_Up once it has left.
    Message sync();
    Message followUp(const Message& sync, int64_t sentNs) const;
    // The answer to a Delay_Req received at `receivedNs`; nothing for any
    // other message or another domain.
    std::optional<Message> answer(const Message& request, int64_t receivedNs) const;
    // The two-step answer to a Pdelay_Req, with which a neighbour measures
    // the link: a Pdelay_Resp at once, and once that has left (`sentNs`) its
    // Follow_Up. Nothing for any other message or another domain.
    std::optional<Message> answerPeerDelay(const Message& request, int64_t receivedNs) const;
    Message peerDelayFollowUp(const Message& request, int64_t sentNs) const;

  private:
    Message header(MessageType type, uint16_t sequence, int8_t logInterval) const;

    PortIdentity port_;
    uint8_t transportSpecific_;
    uint16_t announceSequence_ = 0;
    uint16_t syncSequence_ = 0;
};

}  // namespace vt::airplay_tool::ptp
