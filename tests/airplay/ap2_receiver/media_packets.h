// The test receiver's media sockets: sealed audio on the data port, sync
// packets and resend replies on the control port, the resend requests it
// sends, and what it says to the sender's clock (PTP Delay_Req, or NTP
// timing requests).
#pragma once

#include <cstdint>
#include <span>

#include "receiver_state.h"

namespace vt::airplay_test {

// `resent`: it came inside a resend reply.
void audioPacket(ReceiverState& s, std::span<const uint8_t> p, bool resent);
void controlPacket(ReceiverState& s, std::span<const uint8_t> p);
void sendTimingRequest(ReceiverState& s);
void sendDelayRequest(ReceiverState& s, uint16_t sequence);

}  // namespace vt::airplay_test
