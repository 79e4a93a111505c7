// What an AirPlay output is doing, as its sender reports it to the model.
#pragma once

#include <string>

namespace vt::airplay {

struct AirPlayStatus {
    enum class Kind {
        failed,            // ended; `words` says why
        connecting,        // the tool was launched
        streaming,         // audio has started on the receiver
        authRequired,      // the receiver wants pairing
        forbidden,         // HTTP 403
        stopped,           // ended cleanly
        clockStalled,      // the PTP clock never became usable before the start
        needsApproval,     // HTTP 400: waiting for a person to accept
        clockUnshared,     // PTP asked for, only NTP given
        passwordRequired,  // the receiver refused the authentication tried
    };
    Kind kind = Kind::connecting;
    std::string words;  // only for failed

    static AirPlayStatus failed(std::string why) { return {Kind::failed, std::move(why)}; }
    bool operator==(const AirPlayStatus&) const = default;
};

}  // namespace vt::airplay
