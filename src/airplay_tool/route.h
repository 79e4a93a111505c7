// A way of streaming to one receiver. The protocol in the arguments picks
// one; AirPlay 1 (RAOP) is one route, and the AirPlay 2 routes take the same
// place with their own sessions.
#pragma once

#include <memory>

#include "airplay_tool/command_parser.h"
#include "airplay_tool/status_writer.h"
#include "airplay_tool/tool_options.h"

namespace vt::airplay_tool {

enum class Outcome { running, stopRequested, failed };

class Route {
  public:
    virtual ~Route() = default;
    // Connects to the receiver and sets up the session; prints `connected` on
    // success, an error line and false otherwise.
    virtual bool connect() = 0;
    // Acts on one command: STOP asks for the end, a failure has been reported.
    virtual Outcome handle(const Command& command) = 0;
    // Called about once a second and whenever the receiver's connection has
    // something to say; `failed` once the session is lost, with the error reported.
    virtual Outcome poll() = 0;
    // The connection to watch for the receiver going away, or -1.
    virtual int watchFd() const = 0;
    // A second connection on which the receiver may speak first, or -1.
    virtual int eventFd() const { return -1; }
    // Ends the session politely (on STOP or a signal); prints `stopped`.
    virtual void close() = 0;
};

// The route for these options, or nothing (with the error printed) when the
// protocol is not one this tool speaks yet.
std::unique_ptr<Route> makeRoute(const ToolOptions& options, StatusWriter& status);

}  // namespace vt::airplay_tool
