// The model's side of Cast rows: which rows get a sender, retries after a
// failure, rows held until the user's word (a firewall, another app on the
// TV), the TVs that cannot run the clock-synced receiver, and the words a
// Cast row shows. The rows themselves belong to the application model,
// which calls in at the moments that matter and is told back through hooks,
// all on the main queue.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cast/cast_output_sender.h"
#include "dispatch/main_queue.h"

namespace vt::cast {

// A TV as the supervisor needs to know it.
struct CastDeviceSeen {
    std::string id;
    std::string name;
    std::optional<std::string> host;
    int port = 8009;
};

// A row that plays to a TV, at its engine slot.
struct CastRowWanted {
    int slot = 0;
    std::string deviceID;
};

// The line under a Cast row's name.
std::string castSubtitle(const std::optional<CastStatus>& status, double latencyMs, bool synced,
                         bool missing);

class CastSupervisor {
  public:
    static constexpr int kMaxTries = 4;
    static constexpr double kFirstRetrySeconds = 1.5;
    static constexpr double kLongestRetrySeconds = 8.0;

    // Makes a sender for the TV; `synced` asks for the clock-synced kind.
    using SenderFactory = std::function<std::shared_ptr<CastOutputSender>(const CastTarget& target,
                                                                          int slot, bool synced)>;
    struct Hooks {
        // Make the slot a network slot read at this rate.
        std::function<void(int slot, double rateHz)> prepareSlot;
        // The row's status changed: its words, and whether it now counts as connecting.
        std::function<void(int slot)> statusChanged;
        // The row's latency, milliseconds.
        std::function<void(int slot, double latencyMs)> latencyChanged;
        // Asks the model to call reconcile with what it has now.
        std::function<void()> reconcileWanted;
        // A sender began a fresh attempt at the slot, or its sender went.
        std::function<void(int slot)> senderStarted;
        std::function<void(int slot)> senderStopped;
    };

    // With `trySync`, a TV gets the clock-synced receiver first and the WAV
    // stream only once it has said it cannot run it.
    CastSupervisor(dispatch::MainQueue& mainQueue, SenderFactory factory, Hooks hooks,
                   bool trySync = false);
    ~CastSupervisor();
    CastSupervisor(const CastSupervisor&) = delete;
    CastSupervisor& operator=(const CastSupervisor&) = delete;

    // Stops every sender unless `running`; otherwise stops those whose TV
    // changed or went, and starts those wanted, resolved and not held.
    void reconcile(bool running, const std::vector<CastRowWanted>& rows,
                   const std::vector<CastDeviceSeen>& devices);
    void stopSender(int slot);
    void stopAll();
    // The row at `slot` was removed: later rows move up by one, and their
    // senders are made again for their new slots.
    void removed(int slot);
    // The user asks for another try.
    void reconnect(int slot, const std::string& deviceID);
    void send(std::optional<sendspin::TrackInfo> meta);

    std::optional<CastStatus> status(int slot) const;
    bool synced(int slot) const;
    bool held(int slot) const { return held_.contains(slot); }
    bool hasSender(int slot) const { return senders_.contains(slot); }
    int tries(int slot) const;
    // The slots whose TV cannot fetch from us, with the port to allow.
    std::map<int, uint16_t> firewallBlocked() const;
    bool syncUnavailable(const std::string& deviceID) const {
        return syncUnavailable_.contains(deviceID);
    }

  private:
    struct Running {
        std::shared_ptr<CastOutputSender> sender;
        std::string deviceID;
        bool synced = false;
    };

    void startSender(int slot, const CastDeviceSeen& device);
    void onStatus(int slot, const CastOutputSender* from, const CastStatus& status);

    dispatch::MainQueue& mainQueue_;
    SenderFactory factory_;
    Hooks hooks_;
    const bool trySync_;
    std::map<int, Running> senders_;
    std::map<int, CastStatus> statuses_;
    std::map<int, bool> syncedRows_;
    std::map<int, int> tries_;
    std::set<int> held_;
    std::set<int> retryPending_;
    std::map<int, std::unique_ptr<dispatch::TimerHandle>> retryTimers_;
    std::set<std::string> syncUnavailable_;
    std::optional<sendspin::TrackInfo> meta_;
};

}  // namespace vt::cast
