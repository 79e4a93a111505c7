// Plays to a Cast TV that can run our clock-synced receiver application: it
// launches the application, tells it where our Sendspin server is, and
// serves it the same stamped stream the guests' phones play. The TV keeps
// its clock in step with ours and plays each chunk at its stamp, so nothing
// is measured here: the row's latency is a constant from the first moment.
// A TV without the application says so (LAUNCH_ERROR, or nothing at all),
// and the sender reports "sync receiver unavailable", which the supervisor
// takes as the word to use the WAV stream instead.
//
// All protocol state lives on `queue`; the channel delivers there and the
// server's events are posted there, except clock exchanges, answered on the
// connection's own thread so that the answer's stamps stay tight.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cast/cast_channel.h"
#include "cast/cast_output_sender.h"
#include "cast/cast_sender_base.h"
#include "cast/cast_sync_session.h"
#include "cast/sendspin_endpoint.h"
#include "dispatch/main_queue.h"
#include "sendspin/stream.h"

namespace vt::cast {

inline constexpr std::string_view kSyncReceiverAppID = "FAB7FE2B";
inline constexpr std::string_view kSendspinNamespace = "urn:x-cast:sendspin";
inline constexpr std::string_view kSyncReceiverUnavailable = "sync receiver unavailable";

// The receiver application to launch: VELLATONE_CAST_SYNC_APP if set, else ours.
std::string syncReceiverAppID();

struct CastSyncSenderParts {
    CastConnect connect;
    // Where the TV joins; the WebSocket server on every address by default.
    std::shared_ptr<SendspinEndpoint> endpoint;
    std::function<std::optional<std::string>(const std::string& host)> localAddress;
    // How the receiver names this computer's player.
    std::string senderName = "Vellatone";
    // Stamped frames go out only while a receiver listens; tests may leave the pump off.
    bool pump = true;
};

class CastSyncSender final : public CastSenderBase {
  public:
    // Fills interleaved stereo at 48 kHz; runs on the pump thread.
    using Render = sendspin::SendspinStream::Render;
    using Parts = CastSyncSenderParts;

    static constexpr double kLaunchLimitSeconds = 25.0;
    static constexpr double kJoinLimitSeconds = 12.0;
    static constexpr double kSyncLimitSeconds = 30.0;
    static constexpr double kResyncLimitSeconds = 15.0;
    static constexpr double kConfigRepeatSeconds = 2.0;
    // What the receiver adds to the stamps: the phones' headroom, and the
    // TV's own output path.
    static constexpr double kReceiverHeadroomMs = 200.0;
    static constexpr double kReceiverOutputMs = 330.0;

    // The row's latency: the stamps' lead plus what the receiver adds.
    static double latencyMs();

    static std::shared_ptr<CastSyncSender> make(CastTarget target, Render render,
                                                dispatch::MainQueue& queue,
                                                dispatch::MainQueue& mainQueue, Parts parts = {});
    ~CastSyncSender() override;

    void send(std::optional<sendspin::TrackInfo> meta) override;

  private:
    CastSyncSender(CastTarget target, Render render, dispatch::MainQueue& queue,
                   dispatch::MainQueue& mainQueue, Parts parts);
    void begin() override;
    // Tells the receiver where our server is, until it joins.
    void launched() override;
    void handle(const CastMessage& message, const nlohmann::json& json,
                const std::string& type) override;
    bool running() const override { return running_; }
    void sendConfig();
    void clientConnected(int64_t id);
    void clientText(int64_t id, const std::string& text);
    void clientGone(int64_t id);
    void receiverReport(const nlohmann::json& json);
    void apply(CastSyncSession::Change change);
    void finish(bool stopTV, std::function<void()> then = {}) override;
    // Says each status once.
    void report(CastStatus status) override;

    Parts parts_;
    const std::string appID_;
    const std::string serverID_;
    // The stream writes through the endpoint, which therefore outlives it.
    std::unique_ptr<sendspin::SendspinStream> stream_;
    std::atomic<bool> running_{false};

    // Everything below only on `queue_`.
    CastSyncSession session_;
    uint64_t resyncToken_ = 0;
    std::optional<CastStatus> lastStatus_;
    std::optional<std::string> lastReceiverState_;
    std::unique_ptr<dispatch::TimerHandle> configTimer_;
    std::optional<sendspin::TrackInfo> meta_;
};

}  // namespace vt::cast
