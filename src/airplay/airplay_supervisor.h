// The policy above the AirPlay senders: which rows have one, when a failed one
// is tried again (1.5, 3, 6 and 8 s, then given up unless the user asked to
// keep trying), when a receiver waiting for a person's approval is asked
// again, when the user is asked for a password, and how a sender's latency
// reaches the delay plan. A row is addressed by its slot; the rows themselves
// belong to the model, reached through the hooks. Main queue only.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "airplay/airplay_clock.h"
#include "airplay/airplay_sender.h"
#include "airplay/airplay_status.h"
#include "discovery/airplay_receiver.h"
#include "dispatch/main_queue.h"

namespace vt::airplay {

class AirPlaySupervisor {
  public:
    static constexpr int ordinaryRetries = 4;
    static constexpr double longestRetrySeconds = 8.0;
    static constexpr double firstRetrySeconds = 1.5;
    static constexpr double keepTryingSeconds = 6.0;
    static constexpr int approvalTriesBeforeGivingUp = 3;
    static constexpr double approvalRetrySeconds = 3.0;
    static constexpr double clockRecoverySeconds = 1.0;
    static constexpr int maxClockRecoveries = 2;

    // A row that plays to an AirPlay receiver.
    struct Row {
        int slot = 0;
        std::string receiverID;
        bool heldAfterRestart = false;
    };

    struct Hooks {
        std::function<bool()> engineRunning;
        std::function<std::vector<Row>()> rows;
        std::function<std::optional<std::filesystem::path>()> tool;
        std::function<void(int slot)> prepareSlot;
        std::function<void(int slot, float* into, uint32_t frames)> render;
        // The row's status (none when it has no sender) and whether it plays.
        std::function<void(int slot, const std::optional<AirPlayStatus>& status, bool connected)>
            statusChanged;
        // The row's stream latency in ms (0: unknown), for the delay plan.
        std::function<void(int slot, double ms)> latencyChanged;
        // The row waits for its receiver (true) or plays or has given up.
        std::function<void(int slot, bool waiting)> connectingChanged;
        // Ask the user for the receiver's password.
        std::function<void(int slot)> askPassword;
        std::function<std::optional<std::string>(const std::string& receiverID)> password;
        // Offer the PIN pairing for the row (once per row: the model keeps count).
        std::function<void(int slot)> askPairing;
        std::function<std::optional<AirPlayCredential>(const std::string& receiverID)> credential;
        // The stored route: none means the native one.
        std::function<std::optional<std::string>(const std::string& receiverID)> route;
        std::function<void(const std::string& receiverID, const std::optional<std::string>& route)>
            setRoute;
        std::function<std::string()> deviceID;
        // Tests make senders that pace by the virtual clock; none: real ones.
        std::function<std::unique_ptr<AirPlaySender>(AirPlaySender::Config)> makeSender;
        // The shared PTP daemon; none: AirPlayClock::shared().
        SharedClock* clock = nullptr;
    };

    AirPlaySupervisor(dispatch::MainQueue& main, Hooks hooks);
    ~AirPlaySupervisor();

    void setReceivers(std::vector<discovery::AirPlayReceiver> receivers);
    // The engine started: fresh counts of clock recoveries.
    void engineStarted() { clockRecoveries_ = 0; }
    // The engine stopped: every sender, then the shared clock.
    void engineStopped();
    void reconcile();
    void stopAll();
    void stopSender(int slot);
    // Given up until the user acts (a password, Try again): see the .cpp.
    void waitForUser(int slot);
    // A row at `slot` was removed and the later rows moved up.
    void rebuild(int removedSlot);
    // The user's "try again": no limit on tries until it has once played.
    void reconnect(int slot);
    // A password given for the row at `slot`.
    void passwordGiven(int slot);
    void send(const AirPlaySender::Metadata& meta);

    std::optional<AirPlayStatus> status(int slot) const;
    bool isExhausted(int slot) const { return exhausted_.count(slot) > 0; }
    bool hasSender(int slot) const { return senders_.count(slot) > 0; }
    const AirPlaySender* sender(int slot) const;
    const std::vector<discovery::AirPlayReceiver>& receivers() const { return receivers_; }
    std::optional<discovery::AirPlayReceiver> receiver(const std::string& id) const;
    // Delayed actions held, for tests: bounded however long a row retries.
    size_t timersHeld() const { return timers_.size(); }

  private:
    void start(int slot, const discovery::AirPlayReceiver& receiver);
    void handle(int slot, const std::string& receiverID, const AirPlayStatus& status);
    void ordinaryFailure(int slot, const std::string& receiverID);
    void scheduleRetry(int slot, const std::string& receiverID, int attempt);
    void later(double seconds, int slot, std::function<void()> task);
    bool stillFor(int slot, const std::string& receiverID) const;
    void recoverSharedClock();
    void dropTimers(int slot);
    SharedClock& clock() { return hooks_.clock ? *hooks_.clock : AirPlayClock::shared(); }

    dispatch::MainQueue& main_;
    Hooks hooks_;
    std::vector<discovery::AirPlayReceiver> receivers_;
    std::map<int, std::unique_ptr<AirPlaySender>> senders_;
    std::map<int, std::string> key_;  // the receiver each sender was made for
    std::map<int, AirPlayStatus> statuses_;
    std::map<int, int> connectTries_, approvalTries_, unsharedTries_;
    std::set<int> retryPending_, keepTrying_, exhausted_;
    std::optional<AirPlaySender::Metadata> track_;
    bool recoveringClock_ = false;
    int clockRecoveries_ = 0;
    struct Timer {
        std::shared_ptr<bool> fired;
        std::unique_ptr<dispatch::TimerHandle> handle;
    };
    std::multimap<int, Timer> timers_;  // by slot; -1 for the clock recovery
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// The row's second line for its AirPlay state.
std::string airplaySubtitle(bool missing, const std::optional<AirPlayStatus>& status,
                            double latencyMs, bool leadsOwnGroup);

}  // namespace vt::airplay
