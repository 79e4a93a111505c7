// What every way of feeding a TV shares: the channel to it, with callbacks
// that never outlive the sender; the session that LAUNCH opens, found in the
// TV's receiver status and lost when someone else takes the TV; timers that
// die with the run; and a stop that asks the TV to end our application and
// waits a moment for that word to leave before it reports `stopped`.
//
// Everything but `start`, `stop` and the reports runs on the sender's own
// queue; the reports reach the main queue.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cast/cast_channel.h"
#include "cast/cast_output_sender.h"
#include "dispatch/main_queue.h"

namespace vt::cast {

using CastConnect =
    std::function<std::unique_ptr<CastConnection>(const std::string& host, uint16_t port)>;

class CastSenderBase : public CastOutputSender,
                       public std::enable_shared_from_this<CastSenderBase> {
  public:
    static constexpr double kStopWaitSeconds = 0.8;
    static constexpr double kStopWriteWaitSeconds = 0.6;

    void start() final;
    // Stops the TV's application (unless it belongs to someone else now) and
    // the channel; waits at most kStopWaitSeconds, then reports `stopped`.
    void stop() final;

  protected:
    CastSenderBase(CastTarget target, dispatch::MainQueue& queue, dispatch::MainQueue& mainQueue);

    // Once per sender, on the queue, with the TV's host known.
    virtual void begin() = 0;
    // Our application runs on the TV and its transport is connected.
    virtual void launched() = 0;
    // Every message but the receiver's status and the transport's CLOSE.
    virtual void handle(const CastMessage& message, const nlohmann::json& json,
                        const std::string& type) = 0;
    virtual bool running() const = 0;
    // Ends the run once: the sender's own parts, then `endChannel`.
    virtual void finish(bool stopTV, std::function<void()> then = {}) = 0;
    virtual void report(CastStatus status);

    // Connects to the TV; once the channel is up, LAUNCHes `appID`.
    void openChannel(const CastConnect& connect, std::string appID);
    // Asks the TV to stop our session where `stopTV`, then closes the channel.
    void endChannel(bool stopTV);
    // Marks the run ended and cancels its timers; false if it already was.
    bool markEnded();

    template <typename Self, typename F>
    void later(double seconds, F task) {
        const std::weak_ptr<Self> weak = selfAs<Self>();
        timers_.push_back(queue_.postAfter(seconds, [weak, task = std::move(task)] {
            if (auto s = weak.lock()) task(*s);
        }));
    }
    template <typename Self>
    std::shared_ptr<Self> selfAs() {
        return std::static_pointer_cast<Self>(shared_from_this());
    }
    void postToMain(std::function<void(CastSenderBase&)> task);

    const CastTarget target_;
    dispatch::MainQueue& queue_;
    dispatch::MainQueue& mainQueue_;
    std::shared_ptr<CastChannel> channel_;
    std::optional<std::string> sessionID_, transportID_;
    std::vector<std::unique_ptr<dispatch::TimerHandle>> timers_;
    bool ended_ = false;

  private:
    void receive(const CastMessage& message);
    void receiverStatus(const nlohmann::json& json);
    void replaced();

    std::string appID_;
    bool started_ = false;
    bool launchSent_ = false;
};

}  // namespace vt::cast
