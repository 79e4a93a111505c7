// The byte stream under the Cast channel. The program's one is TLS through
// OpenSSL (tls_cast_connection.h); tests script their own.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace vt::cast {

class CastConnection {
  public:
    struct Events {
        // The secure session is up; bytes may be written.
        std::function<void()> ready;
        // Bytes as they arrived, in order, on the connection's own thread.
        std::function<void(std::string_view bytes)> received;
        // The connection could not be made: the system's or TLS's words.
        std::function<void(const std::string& why)> failed;
        // The peer ended the stream, or a read failed, after `ready`.
        std::function<void()> closed;
    };

    virtual ~CastConnection() = default;
    // At most one of `failed` and `closed` is called, and neither after cancel().
    virtual void start(Events events) = 0;
    // Any thread; whole message or nothing. False when it could not be written.
    virtual bool write(std::string_view bytes) = 0;
    // Ends the connection; once it returns no event is running or will run
    // (unless called from inside an event).
    virtual void cancel() = 0;
};

}  // namespace vt::cast
