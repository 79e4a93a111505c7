// The Sendspin endpoint for a single receiver (the Cast TV's): one client at a
// time, and a newer client always wins over an older one.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "net/client_threads.h"
#include "net/sendspin_connection.h"
#include "net/sendspin_transport.h"

namespace vt::net {

class ServerError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class SendspinWebSocketServer : public SendspinTransport {
  public:
    struct Options {
        // Every IPv4 address, so the TV on the network reaches us; tests use loopback.
        std::string bindAddress = "0.0.0.0";
        // Unset: VELLATONE_SENDSPIN_LISTEN_PORT, else a port the system picks.
        std::optional<uint16_t> port;
        double headDeadlineSeconds = 5.0;
    };

    std::function<void(int64_t id)> onConnect;
    std::function<void(int64_t id, std::string_view text, int64_t receivedUs)> onText;
    std::function<void(int64_t id)> onDisconnect;

    SendspinWebSocketServer();
    explicit SendspinWebSocketServer(Options options);
    ~SendspinWebSocketServer() override;

    void start();  // throws ServerError
    void stop();
    uint16_t port() const;
    uint16_t advertisedPort() const;
    // Frames dropped for slow clients, over every connection so far.
    int64_t droppedFrames() const;

    void sendText(std::string text, int64_t to) override;
    void sendTextBuilding(std::function<std::string()> building, int64_t to) override;
    void sendBinary(std::string data, int64_t to) override;

  private:
    void acceptLoop(int listener);
    void serveClient(int fd);
    std::shared_ptr<SendspinConnection> connection(int64_t id) const;

    const Options options_;
    mutable std::mutex lock_;
    bool running_ = false;
    int64_t generation_ = 0;
    std::shared_ptr<SendspinConnection> current_;
    int64_t pastDropped_ = 0;
    uint16_t port_ = 0;
    std::thread acceptThread_;
    // Sockets still reading their request, so stop() can cut them short.
    std::set<int> pendingHeads_;
    ClientThreads clients_;
};

}  // namespace vt::net
