// vellatone-airplay: streams PCM from standard input to one AirPlay receiver.
//
//   vellatone-airplay [--protocol auto|raop|airplay2|airplay2-compat] [--name N]
//       [--port P] [--samplerate 44100] [--bitdepth 16|24] [--channels 1|2]
//       [--latency MS] [--timing ptp|ntp] [--dacp ID] [--activeremote N]
//       [--volume 0-100] [--password P] [--encrypt|--raw] [--et/--md/--am/--pw/--cn TXT]
//       --cmdpipe FIFO HOST
//   vellatone-airplay --ptp-daemon [--if ADDRESS] [--dacp ID]
//   vellatone-airplay --pair-setup [--http] --dacp ID [--port P] HOST
//
// Vellatone launches one per AirPlay output. PCM (s16le, or s32le with
// --bitdepth 24) arrives on standard input once ACTION=START has been sent on
// the command pipe: lines of KEY=VALUE, each batch ended by ACTION=START,
// SENDMETA, STOP, ... The tool answers with "[STATUS] ..." lines (route and
// latency on standard output, the rest on standard error) and, when
// something fails, "[STATUS] error code=... http=... detail=..." and
// "[ERROR] ...". Exit status: 0 after STOP or a signal, 1 after an error,
// 2 for bad arguments. Without --cmdpipe it starts at once.
//
// With START_UNIX_MS=0 an AirPlay 1 receiver hears the first sample 1.5 s
// after it was read (the lead in "[STATUS] latency lead_ms="); the
// environment variable CLIAIRPLAY_RAOP_LEAD_MS sets another, 250 to 5000.
//
// With --ptp-daemon it is instead the one PTP clock that every AirPlay 2
// sender shares (ptp/ptp_daemon.h), following a receiver's clock when
// CLIAIRPLAY_PTP_FOLLOW=1; it needs the privilege to bind UDP 319 and 320.
//
// --pair-setup pairs once with a receiver that shows a code: it prompts for
// the code on standard output ("Please enter the PIN shown on ..."), reads it
// from standard input, and prints "CREDENTIALS: <192 hex>" for --auth on
// later runs. --http is for HomeKit accessories, which speak HTTP/1.1.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "airplay_tool/command_parser.h"
#include "airplay_tool/pin_pairing.h"
#include "airplay_tool/ptp/ptp_daemon.h"
#include "airplay_tool/ptp/ptp_shared.h"
#include "airplay_tool/route.h"
#include "airplay_tool/status_writer.h"
#include "airplay_tool/tool_options.h"

using namespace vt::airplay_tool;

namespace {

constexpr int kPollIntervalMs = 1000;
constexpr size_t kCommandReadBytes = 64 * 1024;
constexpr int kExitStopped = 0;
constexpr int kExitFailed = 1;
constexpr int kExitBadArguments = 2;

int signalDescriptor() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

}  // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    StatusWriter status;
    ParsedOptions parsed = parseToolOptions(std::vector<std::string>(argv + 1, argv + argc));
    if (!parsed.options) {
        status.error(error_code::badArguments, 0, parsed.error);
        return kExitBadArguments;
    }
    const ToolOptions& options = *parsed.options;
    if (options.pairSetup) return runPinPairing(options, status, STDIN_FILENO);

    // Blocked before any thread starts, so every thread leaves the signals to the descriptor.
    const int signals = signalDescriptor();
    if (options.ptpDaemon) {
        const char* follow = std::getenv("CLIAIRPLAY_PTP_FOLLOW");
        const ptp::PtpDaemonOptions daemon{options.bindInterface, options.dacpID,
                                           follow && std::string(follow) == "1",
                                           ptp::defaultSharedSocketPath()};
        return ptp::runPtpDaemon(daemon, status, signals);
    }
    int commands = -1;
    if (!options.cmdPipe.empty()) {
        // Read-write, so that the pipe never reads as ended between two writers.
        commands = open(options.cmdPipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (commands < 0) {
            status.error(error_code::badArguments, 0,
                         "cannot open the command pipe " + options.cmdPipe);
            return kExitBadArguments;
        }
    }

    std::unique_ptr<Route> route = makeRoute(options, status);
    if (!route || !route->connect()) return kExitFailed;
    if (commands < 0 && route->handle(Command{"START", {}}) == Outcome::failed) return kExitFailed;

    CommandParser parser;
    std::vector<char> buffer(kCommandReadBytes);
    for (;;) {
        pollfd fds[4] = {{commands, POLLIN, 0},
                         {route->watchFd(), POLLIN, 0},
                         {signals, POLLIN, 0},
                         {route->eventFd(), POLLIN, 0}};
        if (::poll(fds, 4, kPollIntervalMs) < 0 && errno != EINTR) break;
        if (fds[2].revents & POLLIN) {
            route->close();
            return kExitStopped;
        }
        if (fds[0].revents & POLLIN) {
            const ssize_t n = read(commands, buffer.data(), buffer.size());
            if (n > 0) {
                for (const Command& command :
                     parser.feed({buffer.data(), static_cast<size_t>(n)})) {
                    const Outcome outcome = route->handle(command);
                    if (outcome == Outcome::stopRequested) {
                        route->close();
                        return kExitStopped;
                    }
                    if (outcome == Outcome::failed) return kExitFailed;
                }
            }
        }
        if (route->poll() == Outcome::failed) return kExitFailed;
    }
    return kExitFailed;
}
