// The small HTTP server a Cast TV fetches its sound from: "/stream.wav", an
// endless WAV stream to one client at a time (a newer client takes over, as
// a TV that reconnects must win), and "/art", the current track's picture.
// It also keeps the time line that the TV's lag is measured against:
// `clientStart`, the time the first block this client got was rendered for,
// moved forward by whatever had to be dropped so the measure stays true.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "cast/cast_stream.h"
#include "net/client_threads.h"

namespace vt::cast {

inline constexpr size_t kCastBacklogLimitBytes = 352800;  // two seconds
inline constexpr double kCastRequestTimeoutSeconds = 5.0;

class CastStreamServer final : public CastStream {
  public:
    using Clock = std::function<double()>;

    // `clock` is the monotonic clock; tests may give their own.
    explicit CastStreamServer(Clock clock = {});
    ~CastStreamServer() override;
    CastStreamServer(const CastStreamServer&) = delete;
    CastStreamServer& operator=(const CastStreamServer&) = delete;

    // Listens on every address, on VELLATONE_CAST_LISTEN_PORT or a port the
    // system picks. Throws net::ServerError ("socket: ", "bind/listen: ").
    void start() override;
    // Closes the listener and the client; idempotent.
    void stop() override;
    uint16_t port() const;
    // VELLATONE_CAST_ADVERTISE_PORT, or the port bound.
    uint16_t advertisedPort() const override;

    // The pump's 10 ms block of 16-bit stereo; never blocks.
    void write(const uint8_t* bytes, size_t count, double blockSeconds) override;

    std::optional<double> clientStart() const override;
    int clientsServed() const override;
    void setArtwork(std::optional<std::string> path) override;
    // Called outside the lock on every new stream client.
    void setOnStreamClient(std::function<void()> callback) override;

    struct Stats {
        int64_t sent = 0;
        int64_t dropped = 0;
        int64_t stalls = 0;
        size_t backlog = 0;
    };
    Stats stats() const;

  private:
    void serve(int fd);
    void serveStream(int fd, bool headOnly);
    void serveArt(int fd);
    void dropClientLocked();

    Clock clock_;
    mutable std::mutex lock_;
    bool running_ = false;
    int clientFD_ = -1;
    std::optional<double> clientStart_;
    std::string backlog_;
    size_t backlogAt_ = 0;  // bytes at the front already gone
    int clientsServed_ = 0;
    Stats stats_;
    double statAt_ = 0;
    std::optional<std::string> artwork_;
    uint16_t port_ = 0;
    std::function<void()> onStreamClient_;
    std::thread acceptThread_;
    net::ClientThreads requests_;
};

}  // namespace vt::cast
