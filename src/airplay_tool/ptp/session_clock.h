// The PTP side of one AirPlay 2 session, for the route that speaks to the
// receiver: which clock the session keeps time by, what the session SETUP
// says of it (`timingPeerInfo`, and the peer list of SETPEERS), PTP time from
// our clock, and the `clock_ready` lines.
//
// With --ptp-shared the session joins the daemon and registers its receiver
// there, so that the daemon sends it Sync and Announce by unicast too; a
// receiver that will not follow us (CLIAIRPLAY_PTP_FOLLOW=1) is registered
// as the clock to follow instead.
// Without a daemon it runs a clock of its own in this process. When neither
// can be had (no privilege for the PTP ports, or another program holds them)
// it has no clock and says why: the session then keeps time by NTP, which the
// app hears as `clock_ready mode=ntp`.
#pragma once

#include <netinet/in.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "airplay_tool/ptp/ptp_shared.h"
#include "airplay_tool/status_writer.h"

namespace vt::airplay_tool::ptp {

class PtpEngine;

// What a session SETUP carries of our clock under `timingPeerInfo`.
struct TimingPeerInfo {
    std::vector<std::string> addresses;
    std::string id;
    int64_t clockID = 0;
    int deviceType = 0;
    bool supportsClockPortMatchingOverride = false;
};

class SessionClock {
  public:
    enum class Source { shared, own, none };
    struct Options {
        bool useShared = false;  // --ptp-shared
        std::string sharedPath = defaultSharedSocketPath();
        std::string receiver;    // its IPv4 address
        std::string ourAddress;  // ours towards it (--publish-ip / --if)
        std::string deviceID;    // --dacp, for a clock of our own
        bool follow = false;     // CLIAIRPLAY_PTP_FOLLOW=1
    };
    static constexpr int askTimeoutMs = 200;
    static constexpr int reportIntervalMs = 100;

    SessionClock(Options options, StatusWriter& status);
    ~SessionClock();
    SessionClock(const SessionClock&) = delete;
    SessionClock& operator=(const SessionClock&) = delete;

    Source attach();
    Source source() const { return source_; }
    // From now on, on a thread of its own, the `clock_ready` lines until
    // ready; the first at once. With no clock, the one NTP line.
    void reportReadiness();
    bool isReady() const;

    TimingPeerInfo peerInfo() const;
    // SETPEERS: the receiver, then us.
    std::vector<std::string> peerList() const;
    // Our CLOCK_REALTIME nanoseconds as PTP time of the session's clock,
    // and which clock that is: following, the master may be found (or
    // change) after the session began.
    struct Reading {
        int64_t ptpNs = 0;
        int64_t clockNumber = 0;
    };
    Reading read(int64_t realtimeNs) const;
    int64_t ptpNs(int64_t realtimeNs) const { return read(realtimeNs).ptpNs; }
    std::optional<SharedStatus> status() const;

  private:
    void report();

    const Options options_;
    StatusWriter& status_;
    Source source_ = Source::none;
    std::optional<in_addr> receiver_;
    std::optional<SharedStatus> attached_;  // what the clock said when we joined
    std::unique_ptr<PtpEngine> own_;
    int ownStopFd_ = -1;
    std::thread ownThread_, reporter_;
    mutable std::mutex lock_;
    std::condition_variable wake_;
    bool ending_ = false;
    bool ready_ = false;
};

}  // namespace vt::airplay_tool::ptp
