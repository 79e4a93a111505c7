// One control channel to a Cast device: framing, the heartbeat both ways, and
// the loss of the TV. Above it the senders speak JSON in named namespaces;
// the channel does not know what their messages mean. Everything it reports
// is posted to the delivery queue its owner gives it, in order.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "cast/cast_connection.h"
#include "cast/cast_frame_reader.h"
#include "cast/cast_message.h"
#include "dispatch/main_queue.h"

namespace vt::cast {

inline constexpr double kHeartbeatIntervalSeconds = 5.0;
inline constexpr double kHeartbeatLossSeconds = 15.0;

// The words a lost channel gives, which reach the row as they stand.
inline constexpr std::string_view kLostCannotReach = "cannot reach the TV: ";
inline constexpr std::string_view kLostSilent = "lost the TV (no answer for 15 s)";
inline constexpr std::string_view kLostClosed = "the TV closed the connection";
inline constexpr std::string_view kLostGarbled = "the TV sent something that is not a Cast message";

class CastChannel : public std::enable_shared_from_this<CastChannel> {
  public:
    struct Callbacks {
        std::function<void()> onReady;
        std::function<void(const CastMessage&)> onMessage;      // never a heartbeat
        std::function<void(const std::string& reason)> onLost;  // at most once
    };

    // `delivery` runs the callbacks and the heartbeat, and must outlive the channel.
    static std::shared_ptr<CastChannel> make(std::unique_ptr<CastConnection> connection,
                                             dispatch::MainQueue& delivery);
    ~CastChannel();
    CastChannel(const CastChannel&) = delete;
    CastChannel& operator=(const CastChannel&) = delete;

    void start(Callbacks callbacks);
    // Any thread. Numbers the request unless it is CONNECT, CLOSE, PING or
    // PONG or brings its own requestId; returns the number given. The
    // completion runs on the delivery queue once the write is done (also when
    // nothing could be sent).
    std::optional<int64_t> send(std::string_view destination, std::string_view nameSpace,
                                nlohmann::json payload, std::function<void()> completion = {});
    // Ends the channel without onLost.
    void close();
    bool closed() const;

  private:
    CastChannel(std::unique_ptr<CastConnection> connection, dispatch::MainQueue& delivery);
    void connectionReady();
    void received(std::string_view bytes);
    void heartbeat();
    void lose(std::string reason);
    void deliver(std::function<void(CastChannel&)> task);
    bool shutDown();

    std::unique_ptr<CastConnection> connection_;
    dispatch::MainQueue& delivery_;
    Callbacks callbacks_;
    CastFrameReader reader_;  // only on the connection's thread
    std::unique_ptr<dispatch::TimerHandle> heartbeat_;

    mutable std::mutex lock_;
    double lastHeard_;
    int64_t nextRequestID_ = 1;
    bool closed_ = false;
};

// Whether VELLATONE_CAST_DEBUG asks for the channel's traffic on standard error.
bool castDebugEnabled();

}  // namespace vt::cast
