// The test receiver's control connection: RTSP requests read off it, and
// the receiver's answer to each (GET /info, pairing, the session's SETUPs,
// RECORD, SETPEERS, SET_PARAMETER, TEARDOWN), with what breaks the protocol
// noted in the state.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "airplay_tool/hap/channel_cipher.h"
#include "receiver_state.h"

namespace vt::airplay_test {

struct Request {
    std::string method, uri;
    std::map<std::string, std::string> headers;  // names lower-cased
    std::string body;
    std::string header(const std::string& name) const {
        auto it = headers.find(name);
        return it == headers.end() ? std::string() : it->second;
    }
};

// One request off the front of `buffer`, if a whole one is there.
std::optional<Request> takeRequest(std::string& buffer, bool& malformed);

struct Reply {
    int status = 200;
    std::string contentType;
    std::string body;
};

// `keys` is set when this answer ends a pairing: what follows is sealed.
Reply handleRequest(ReceiverState& s, const Request& r, bool encrypted,
                    std::optional<hap::ChannelKeys>& keys);

}  // namespace vt::airplay_test
