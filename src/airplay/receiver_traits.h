// What a receiver's TXT record says about how to treat it.
#pragma once

#include <string>

#include "discovery/airplay_receiver.h"

namespace vt::airplay {

// A Mac, Apple TV, HomePod, iPhone or iPad, by its model.
bool isAppleModel(const discovery::AirPlayReceiver& receiver);
// An Apple receiver that leads a group of its own and will not follow us.
bool leadsOwnGroup(const discovery::AirPlayReceiver& receiver);
// Whether the tool must follow the receiver's PTP clock rather than lead it.
bool followsReceiverClock(const discovery::AirPlayReceiver& receiver);
// Whether pairing asks for a code shown on the receiver.
bool wantsPIN(const discovery::AirPlayReceiver& receiver);
// Seen only as "_raop._tcp": AirPlay 1, no PTP.
inline bool isAirPlay1(const discovery::AirPlayReceiver& receiver) {
    return !receiver.supportsAirPlay2;
}

}  // namespace vt::airplay
