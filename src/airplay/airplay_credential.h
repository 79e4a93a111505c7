// What a PIN pairing leaves: the id this computer gave the receiver
// (`dacp`) and the tool's text for later runs (`creds`), kept in the
// settings under "airplayCreds" by receiver id.
#pragma once

#include <string>

namespace vt::airplay {

struct AirPlayCredential {
    std::string dacp;
    std::string creds;
    bool operator==(const AirPlayCredential&) const = default;
};

}  // namespace vt::airplay
