// The program's hold on the sound server. When the server goes away (it
// crashed, or was restarted), this says so at once and then tries to reach it
// again with a short back-off, until it answers; then it says it is back.
// Whoever owns the sound (the model) closes everything on onLost and makes it
// again on onBack.
//
// On PipeWire the server answering is not yet the server being ready:
// pipewire-pulse comes up before WirePlumber has made its "default" metadata
// and chosen a default sink, and a sink or stream made in that moment may
// never be linked (WirePlumber then waits 20 s for it and gives up). So there
// the return counts once a default sink is announced, or after
// sessionManagerWaitSeconds at most, since a desktop with no sink at all
// never has one.
//
// Main thread only; tested on the scripted server with a virtual clock.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "devices/device_monitor.h"
#include "dispatch/main_queue.h"
#include "platform/audio_backend.h"

namespace vt::devices {

class ServerConnection {
  public:
    // The first try follows the loss quickly (a restart takes a moment);
    // each failure doubles the wait up to the last, so that a server back
    // after a while is found within half a second. A try that finds nobody
    // costs one refused connect on a local socket.
    static constexpr double firstRetrySeconds = 0.1;
    static constexpr double longestRetrySeconds = 0.5;
    static constexpr double sessionManagerWaitSeconds = 3.0;

    ServerConnection(platform::AudioBackend& backend, dispatch::MainQueue& main);
    ~ServerConnection();
    ServerConnection(const ServerConnection&) = delete;
    ServerConnection& operator=(const ServerConnection&) = delete;

    // Starts watching; with no server now, starts trying to reach one.
    void start();
    void stop();

    // False from the loss until onBack.
    bool connected() const { return !lostAt_; }
    // When the server went away (or watching began without one), on the main
    // queue's clock; nothing while connected.
    const std::optional<double>& lostAt() const { return lostAt_; }
    // Tries since the server went away.
    int attempts() const { return attempts_; }
    // The wait before the next try.
    double nextRetrySeconds() const { return retry_; }

    std::function<void()> onLost;
    std::function<void()> onBack;

  private:
    void check();
    void lose();
    void attempt();
    void scheduleAttempt();
    // The backend reaches the server again: back now, or once its session
    // manager has chosen a default sink.
    void answered();
    void awaitSessionManager();
    bool sessionManagerPending() const;
    void announceBack();

    platform::AudioBackend& backend_;
    dispatch::MainQueue& main_;
    std::unique_ptr<ChangeHop> hop_;
    std::unique_ptr<dispatch::TimerHandle> retryTimer_;
    // While an answering server waits for its session manager.
    std::unique_ptr<ChangeHop> defaultHop_;
    std::unique_ptr<dispatch::TimerHandle> sessionManagerTimer_;
    std::optional<double> lostAt_;
    int attempts_ = 0;
    double retry_ = firstRetrySeconds;
};

}  // namespace vt::devices
