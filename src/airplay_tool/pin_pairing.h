// --pair-setup: the one-time PIN pairing the app runs when a receiver asks
// for a code. The receiver shows the code, we print a prompt on standard
// output and read the code a person types from standard input, and on
// success print "CREDENTIALS: " and the 192 hex digits to keep. A wrong code
// prints an error line and prompts again until CLIAIRPLAY_SETUP_TIMEOUT_MS
// has passed; each request waits at most CLIAIRPLAY_PAIR_TIMEOUT_MS.
#pragma once

#include "airplay_tool/status_writer.h"
#include "airplay_tool/tool_options.h"

namespace vt::airplay_tool {

inline constexpr int kDefaultPinWaitMs = 180000;
inline constexpr int kDefaultPairRequestMs = 25000;

// The exit status: 0 with credentials printed, 1 otherwise.
int runPinPairing(const ToolOptions& options, StatusWriter& status, int pinFd);

}  // namespace vt::airplay_tool
