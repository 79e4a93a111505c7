// How a Sendspin stream reaches its clients, whichever server holds them. An id
// that no longer names a live connection is ignored, so a stream never has to
// know that its client went away.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace vt::net {

class SendspinTransport {
  public:
    virtual ~SendspinTransport() = default;
    virtual void sendText(std::string text, int64_t to) = 0;
    // The text is built when it is about to be written, so it can carry its send time.
    virtual void sendTextBuilding(std::function<std::string()> building, int64_t to) = 0;
    virtual void sendBinary(std::string data, int64_t to) = 0;
};

}  // namespace vt::net
