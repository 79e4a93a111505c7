// One guest's audio session: it greets the phone, starts the timed stream half
// a second after the hello while the application runs, and carries on across
// the phone's reconnects without the row noticing more than a status change.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "dispatch/main_queue.h"
#include "guests/gated_transport.h"
#include "net/sendspin_transport.h"
#include "sendspin/pump_clock.h"
#include "sendspin/stream.h"

namespace vt::guests {

// How far ahead of real time guest frames are stamped: 500 ms, or
// VELLATONE_SENDSPIN_LEAD_MS when that parses as a decimal number.
double sendspinLeadMs();

class GuestSender {
  public:
    enum class Status { waiting, playing, reconnecting, paused };
    static const char* rawValue(Status status);

    // What a phone's own output is assumed to add until it is measured.
    static constexpr double assumedPhoneOutputMs = 50.0;
    static constexpr double startDelaySeconds = 0.5;
    // Lead plus the headroom the phone reads behind the stamps.
    static double streamLatencyMs();

    using Render = sendspin::SendspinStream::Render;

    // Timers run on `queue`, status reports arrive on `mainQueue`; both must
    // outlive the sender. `serverName` is how the host introduces itself.
    GuestSender(std::string clientID, int64_t connection, net::SendspinTransport& server,
                Render render, dispatch::MainQueue& queue, dispatch::MainQueue& mainQueue,
                std::string serverName, std::shared_ptr<sendspin::PumpClock> clock = nullptr);
    ~GuestSender();
    GuestSender(const GuestSender&) = delete;
    GuestSender& operator=(const GuestSender&) = delete;

    std::function<void(Status)> onStatus;

    const std::string& clientID() const { return clientID_; }
    Status currentStatus() const;
    void setRender(Render render);
    void handle(std::string_view text, int64_t from);
    void attach(int64_t connection);
    void detach();
    void play();
    void pause();
    void send(std::optional<sendspin::TrackInfo> meta);
    void setArtworkEncoder(sendspin::SendspinStream::ArtworkEncoder encoder) {
        stream_.setArtworkEncoder(std::move(encoder));
    }
    void stop();

  private:
    void scheduleStartLocked();
    void dropLocked();
    void reportLocked(Status status);

    const std::string clientID_;
    dispatch::MainQueue& queue_;
    dispatch::MainQueue& mainQueue_;
    const std::string serverID_;
    const std::string serverName_;
    GatedTransport gate_;
    sendspin::SendspinStream stream_;

    mutable std::mutex lock_;
    std::optional<int64_t> connection_;
    bool helloSeen_ = false;
    bool streaming_ = false;
    bool engineRunning_ = false;
    uint64_t startToken_ = 0;
    Status status_;
    std::unique_ptr<dispatch::TimerHandle> startTimer_;
};

}  // namespace vt::guests
