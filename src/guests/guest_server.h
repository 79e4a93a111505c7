// The web server that lets friends' phones play along: it hands out the guest
// page, tells a phone whether it may join, and carries each phone's Sendspin
// session over a WebSocket. There is no login; the only fence is the reach of
// the local network and the check of Host and Origin against re-bound names.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "dispatch/main_queue.h"
#include "guests/guest_roster.h"
#include "net/client_threads.h"
#include "net/http_request.h"
#include "net/sendspin_connection.h"
#include "net/sendspin_transport.h"
#include "net/sendspin_websocket_server.h"

namespace vt::guests {

struct GuestServerOptions {
    // Every IPv4 address, so phones on the network reach us; tests use loopback.
    std::string bindAddress = "0.0.0.0";
    double headDeadlineSeconds = 5.0;
    double helloPatience = 10.0;
    double idlePatience = 5.0;
    size_t maxClientThreads = 64;
    // A phone's browser opens up to six connections for the page, one for its
    // session, and one more while a session replaces its last.
    size_t maxClientThreadsPerAddress = 12;
    // Only for use of the server from this machine itself.
    bool allowsLoopbackHost = false;
    // Shown on the page before a phone joins; empty means the host name.
    std::string computerName;
};

class GuestServer : public net::SendspinTransport {
  public:
    static constexpr uint16_t closeRemoved = 4001;
    static constexpr uint16_t closeFull = 4002;
    static constexpr const char* leavingReason = "user_request";

    using Options = GuestServerOptions;

    struct Event {
        enum class Kind { joined, returned, dropped, gone, text };
        Kind kind = Kind::text;
        std::string clientID;
        std::string name;        // joined
        int64_t connection = 0;  // joined, returned, text
        std::string text;        // text
    };

    // Roster work and the timers run on `queue`; events are delivered on
    // `eventQueue`. Both must outlive the server.
    GuestServer(std::filesystem::path root, uint16_t port, double patience,
                dispatch::MainQueue& eventQueue, dispatch::MainQueue& queue,
                Options options = Options());
    ~GuestServer() override;
    GuestServer(const GuestServer&) = delete;
    GuestServer& operator=(const GuestServer&) = delete;

    // Set before start.
    std::function<void(const Event&)> onEvent;

    void start();  // throws net::ServerError
    void stop();
    // The host throws a guest out: barred until the server ends.
    void remove(const std::string& clientID);
    uint16_t port() const;
    size_t clientThreads() const;
    GuestRoster::Status status(const std::string& clientID) const;

    // The address a phone on the same network would use to reach us.
    static std::optional<std::string> lanIPv4();

    void sendText(std::string text, int64_t to) override;
    void sendTextBuilding(std::function<std::string()> building, int64_t to) override;
    void sendBinary(std::string data, int64_t to) override;

  private:
    void acceptLoop(int listener);
    static std::optional<uint32_t> peerAddress(int fd);
    void releaseAddress(uint32_t peer);
    void serveClient(int fd);
    void serveGuest(int fd, const std::string& clientID, const std::string& leftover,
                    const std::string& key);
    void refuseSession(int fd, uint16_t code);
    void clientText(const std::string& clientID, int64_t connection, std::string_view text);
    void expiryTick();
    void emitLocked(Event event);
    std::string partyJSON(const std::string& clientID) const;
    std::shared_ptr<net::SendspinConnection> connection(int64_t id) const;

    const std::filesystem::path root_;
    const uint16_t requestedPort_;
    const double patience_;
    dispatch::MainQueue& eventQueue_;
    dispatch::MainQueue& queue_;
    const Options options_;
    const std::string computerName_;

    // Held first where both are needed; events go out under it so they keep
    // the order in which the roster changed.
    mutable std::mutex rosterLock_;
    GuestRoster roster_;

    mutable std::mutex lock_;
    bool running_ = false;
    int64_t nextConnection_ = 0;
    std::map<int64_t, std::shared_ptr<net::SendspinConnection>> connections_;
    std::map<int64_t, std::unique_ptr<dispatch::TimerHandle>> helloTimers_;
    std::unique_ptr<dispatch::TimerHandle> expiry_;
    std::unique_ptr<dispatch::TimerHandle> expiryStart_;
    std::set<int> rawSockets_;               // not yet a WebSocket, so stop() can cut them short
    std::map<uint32_t, size_t> perAddress_;  // client threads by peer IPv4 address
    uint16_t port_ = 0;
    std::thread acceptThread_;
    // Last, so that it is still there while client threads finish.
    net::ClientThreads clients_{options_.maxClientThreads};
};

}  // namespace vt::guests
