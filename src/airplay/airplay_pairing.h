// The one-time pairing with a receiver that shows a code: a short run of the
// AirPlay tool in --pair-setup mode, driven by what it prints. The tool asks
// for the code on standard output; `submitPIN` hands it what the user typed;
// the tool prints the credentials, or complains on standard error and asks
// again until it gives up.
//
// Single-shot: construct, set onEvent, start(), submitPIN() any number of
// times, and cancel() or let it end. Events come on the main queue, never
// after the object is gone, and `failed` at most once.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "airplay/airplay_credential.h"
#include "airplay/child_process.h"
#include "discovery/airplay_receiver.h"
#include "dispatch/main_queue.h"

namespace vt::airplay {

class AirPlayPairing {
  public:
    // Someone has to walk to the receiver and read its code.
    static constexpr const char* setupTimeoutMs = "180000";
    static constexpr const char* pairTimeoutMs = "25000";

    struct Event {
        enum class Kind { paired, failed, connecting, awaitingPIN };
        Kind kind;
        AirPlayCredential credential;  // paired
        std::string text;              // failed
    };

    AirPlayPairing(std::filesystem::path binary, discovery::AirPlayReceiver receiver,
                   std::string dacp, dispatch::MainQueue& main);
    ~AirPlayPairing();
    AirPlayPairing(const AirPlayPairing&) = delete;
    AirPlayPairing& operator=(const AirPlayPairing&) = delete;

    std::function<void(const Event&)> onEvent;

    void start();
    // Writes the digits of `typed`, if any, as one line to the tool.
    void submitPIN(const std::string& typed);
    // Ends the tool; nothing more is told.
    void cancel();

    // The arguments, in the order the tool's contract gives them.
    std::vector<std::string> arguments(const std::string& cmdPipe) const;

  private:
    void readOutputs();
    void handleLine(bool fromStdout, std::string_view line);
    // Any thread: `event` goes to `deliver` on the main queue, unless the
    // object is gone by then.
    void tell(Event event);
    // Main thread: to onEvent, unless the outcome was already told.
    void deliver(const Event& event);
    void cleanup();

    std::filesystem::path binary_;
    discovery::AirPlayReceiver receiver_;
    std::string dacp_;
    dispatch::MainQueue& main_;
    std::optional<ChildProcess> child_;
    std::optional<std::string> cmdPipePath_;
    std::thread reader_;
    std::atomic<bool> exited_{false};  // reaped: its pid may be someone else's
    std::string lastError_;            // the reader thread's only
    bool finished_ = false;            // main thread only
    // Tasks on the main queue hold this weakly: a pairing destroyed says nothing.
    // The reader thread copies only the weak one, which nothing writes.
    std::shared_ptr<AirPlayPairing*> self_ = std::make_shared<AirPlayPairing*>(this);
    const std::weak_ptr<AirPlayPairing*> weakSelf_ = self_;
};

}  // namespace vt::airplay
