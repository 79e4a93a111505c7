// One AirPlay 2 session's PTP clock as the route runs it, for the linuxptp
// test: joins the shared daemon (--shared) or runs a clock of its own,
// registers RECEIVER (to follow its clock, with --follow), and prints the tool's status lines until
// the clock is ready or 8 s have passed.
//
//   ptp_session_probe [--shared] [--follow] RECEIVER OUR_ADDRESS
// Exit status 0 once ready (or when keeping time by NTP), 1 otherwise.
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "airplay_tool/ptp/session_clock.h"
#include "airplay_tool/status_writer.h"

using namespace vt::airplay_tool;

int main(int argc, char** argv) {
    constexpr auto waitAtMost = std::chrono::seconds(8);
    ptp::SessionClock::Options options;
    int at = 1;
    for (; at < argc && argv[at][0] == '-'; ++at) {
        const std::string flag = argv[at];
        if (flag == "--shared") options.useShared = true;
        if (flag == "--follow") options.follow = true;
    }
    if (argc - at != 2) {
        std::fprintf(stderr,
                     "usage: ptp_session_probe [--shared] [--follow] RECEIVER OUR_ADDRESS\n");
        return 2;
    }
    options.receiver = argv[at];
    options.ourAddress = argv[at + 1];
    options.deviceID = "02:00:00:00:00:02";
    StatusWriter status(1, 1);
    ptp::SessionClock clock(options, status);
    const auto source = clock.attach();
    std::printf("source=%s clock_number=%lld\n",
                source == ptp::SessionClock::Source::shared ? "shared"
                : source == ptp::SessionClock::Source::own  ? "own"
                                                            : "none",
                static_cast<long long>(clock.peerInfo().clockID));
    std::fflush(stdout);
    clock.reportReadiness();
    if (source == ptp::SessionClock::Source::none) return 0;
    const auto giveUp = std::chrono::steady_clock::now() + waitAtMost;
    while (!clock.isReady() && std::chrono::steady_clock::now() < giveUp)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return clock.isReady() ? 0 : 1;
}
