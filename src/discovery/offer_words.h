// How a discovered output is offered for adding: the transport's name, and
// why it may not be ready ("resolving…", "in use, playing …").
#pragma once

#include <string>

#include "discovery/airplay_receiver.h"
#include "discovery/cast_device.h"

namespace vt::discovery {

inline std::string offerWords(const AirPlayReceiver& receiver) {
    return receiver.host ? "AirPlay" : "AirPlay · resolving…";
}

inline std::string offerWords(const CastDevice& device) {
    if (!device.host) return "Google Cast · resolving…";
    if (device.busyWith) return "Google Cast · in use, playing " + *device.busyWith;
    return "Google Cast";
}

}  // namespace vt::discovery
