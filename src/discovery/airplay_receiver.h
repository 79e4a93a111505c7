// An AirPlay receiver as discovery knows it.
#pragma once

#include <optional>
#include <string>

#include "discovery/txt_record.h"

namespace vt::discovery {

struct AirPlayReceiver {
    static constexpr int unresolvedPort = 7000;

    // The service name without the "<MAC>@" of the _raop._tcp form, so that
    // both services of one device meet here. Never changes for a receiver.
    std::string id;
    std::string name;                 // shown; the same text as id
    std::optional<std::string> host;  // dotted IPv4, once resolved
    int port = unresolvedPort;
    TxtRecord txt;                  // both services' keys merged
    bool supportsAirPlay2 = false;  // seen on _airplay._tcp

    bool operator==(const AirPlayReceiver&) const = default;
};

}  // namespace vt::discovery
