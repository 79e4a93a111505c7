// The Transport header of a SETUP answer: where the receiver wants audio,
// sync packets and timing replies.
#pragma once

#include <optional>
#include <string_view>

namespace vt::airplay_tool {

struct ReceiverPorts {
    int audio = 0;    // server_port
    int control = 0;  // control_port
    int timing = 0;   // timing_port (0 when not given)
};

// Keys are read in any order; unknown ones are skipped. Nothing without a
// valid server_port and control_port, or with a port outside 1..65535.
std::optional<ReceiverPorts> parseTransportHeader(std::string_view value);

}  // namespace vt::airplay_tool
