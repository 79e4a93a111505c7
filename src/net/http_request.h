// One HTTP/1.1 request head, as the guest and Sendspin servers see it. There is
// no keep-alive: a connection carries one request or becomes one WebSocket.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "net/monotonic.h"

namespace vt::net {

struct HTTPRequest {
    std::string method;
    std::string path;
    std::map<std::string, std::string> query;
    std::map<std::string, std::string> headers;  // keys lower-cased

    // Only "upgrade" and the key are looked at: clients disagree on "connection".
    bool isWebSocketUpgrade() const;

    // Nothing for a head that is not UTF-8, has no target, or names a header
    // that may appear once (Host, Origin, the upgrade's) more than once.
    static std::optional<HTTPRequest> parse(std::string_view text);
};

// Bounds on what a client may send before its request is complete.
inline constexpr size_t kMaxHeadBytes = 16'384;
inline constexpr size_t kHeadReadChunk = 4'096;

// Collects bytes until the blank line that ends a head. Kept apart from the
// socket so the bounds can be checked (and fuzzed) without one.
class HTTPHeadBuffer {
  public:
    enum class State { needMore, complete, tooLarge };

    // How many bytes the next read may ask for.
    size_t nextReadSize() const;
    State append(std::string_view bytes);

    // Valid once `append` said complete.
    std::string_view head() const { return std::string_view(buffer_).substr(0, headLength_); }
    std::string_view leftover() const { return std::string_view(buffer_).substr(headLength_ + 4); }

  private:
    std::string buffer_;
    size_t headLength_ = 0;
    size_t searchedUpTo_ = 0;
};

struct HeadReadResult {
    enum class Outcome { request, timedOut, peerGone, tooLarge, malformed };
    Outcome outcome = Outcome::peerGone;
    std::optional<HTTPRequest> request;
    std::string leftover;  // bytes that followed the head, e.g. a first WebSocket frame
};

// Reads a request head from a blocking socket within `deadlineSeconds`, and
// answers 431 or 400 itself; the caller closes the socket on anything but a
// request. `clock` is there so tests can run the deadline out without waiting.
HeadReadResult readHTTPRequest(int fd, double deadlineSeconds,
                               const SecondsClock& clock = monotonicSeconds);

}  // namespace vt::net
