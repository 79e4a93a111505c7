// `vellatone-airplay --ptp-daemon`: the one PTP clock of this computer that
// every AirPlay 2 sender shares. It leads as a two-step grandmaster
// (Announce each second, Sync and Follow_Up every 125 ms, to the PTP
// multicast group and to each receiver a sender registered, and a Delay_Resp
// to every Delay_Req), or, with CLIAIRPLAY_PTP_FOLLOW=1, follows the first
// clock it hears announce itself. Senders ask it through the shared socket
// (ptp_shared.h). It runs until SIGTERM or SIGINT; without the privilege to
// bind ports 319 and 320 it says so and ends at once with status 2.
#pragma once

#include <string>

#include "airplay_tool/status_writer.h"

namespace vt::airplay_tool::ptp {

struct PtpDaemonOptions {
    std::string interfaceAddress;  // the local IPv4 address to send multicast from
    std::string deviceID;          // our clock identity is made from it
    bool follow = false;
    std::string sharedPath;
};

inline constexpr int exitNoPorts = 2;

// `stopFd` becomes readable when the daemon is to end (a signalfd).
int runPtpDaemon(const PtpDaemonOptions& options, StatusWriter& status, int stopFd);

}  // namespace vt::airplay_tool::ptp
