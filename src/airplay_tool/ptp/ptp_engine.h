// One PTP clock at work on its two ports: leading as a two-step grandmaster
// (Announce each second, Sync and Follow_Up every 125 ms, to the PTP
// multicast group and to every registered peer; a Delay_Resp to every
// Delay_Req) or following the first clock that announces itself (one of the
// registered peers', when there are any). It runs on
// one thread of its own (`run`); the others ask it for its status and
// register peers, under its lock. The daemon serves it to every sender; a
// sender without a daemon runs one in its own process.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "airplay_tool/ptp/ptp_follower.h"
#include "airplay_tool/ptp/ptp_grandmaster.h"
#include "airplay_tool/ptp/ptp_shared.h"
#include "airplay_tool/ptp/ptp_sockets.h"

namespace vt::airplay_tool::ptp {

class PtpEngine {
  public:
    struct Options {
        std::string deviceID;  // our clock identity is made from it
        bool follow = false;
    };
    // Peers a sender may register, and addresses remembered as heard from:
    // bounded, whatever is sent to us.
    static constexpr size_t maxPeers = 64;
    static constexpr size_t maxHeard = 256;

    PtpEngine(Options options, PtpSockets sockets);

    // Until `stopFd` is readable (0) or polling fails (1). `extraFd`, if not
    // -1, is watched too and `onExtra` called when it is readable.
    int run(int stopFd, int extraFd = -1, const std::function<void()>& onExtra = {});

    // With `peer`: also whether it was heard from, and how often.
    SharedStatus status(std::optional<in_addr> peer = std::nullopt) const;
    void addPeer(in_addr peer);
    // A receiver that will not follow us: from now on we follow its clock
    // (registering it as a peer too), whichever we led or followed before.
    void followPeer(in_addr peer);
    void removePeer(in_addr peer);
    bool kernelTimestamps() const { return sockets_.kernelTimestamps(); }
    // Called on the engine's thread when the followed clock's state changes.
    std::function<void(const SharedStatus&)> onStateChange;

  private:
    std::vector<in_addr> destinationsLocked() const;
    void announce();
    void sync();
    void follow();
    void received(int fd);
    SharedStatus statusLocked() const;

    const Options options_;
    PtpSockets sockets_;
    mutable std::mutex lock_;
    Grandmaster grandmaster_;
    Follower follower_;
    // Read by the engine's thread unlocked between its passes; set under the lock.
    std::atomic<bool> following_;
    std::optional<in_addr> followed_;
    std::optional<in_addr> masterAddress_;
    std::optional<ClockState> lastState_;
    std::map<uint32_t, bool> peers_;
    struct Heard {
        int64_t lastNs = 0;
        int count = 0;
    };
    std::map<uint32_t, Heard> heard_;
};

}  // namespace vt::airplay_tool::ptp
