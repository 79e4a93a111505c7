// What a Cast sender needs of the server its TV fetches from; the program's
// is CastStreamServer, unit tests script one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace vt::cast {

class CastStream {
  public:
    virtual ~CastStream() = default;
    // Throws net::ServerError with the words to show.
    virtual void start() = 0;
    virtual void stop() = 0;
    virtual uint16_t advertisedPort() const = 0;
    // `blockSeconds`: the monotonic time the block's first frame was rendered
    // for, on the pump's line.
    virtual void write(const uint8_t* bytes, size_t count, double blockSeconds) = 0;
    virtual std::optional<double> clientStart() const = 0;
    virtual int clientsServed() const = 0;
    virtual void setArtwork(std::optional<std::string> path) = 0;
    virtual void setOnStreamClient(std::function<void()> callback) = 0;
};

}  // namespace vt::cast
