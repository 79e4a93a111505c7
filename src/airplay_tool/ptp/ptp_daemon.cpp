#include "airplay_tool/ptp/ptp_daemon.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <map>
#include <optional>

#include "airplay_tool/ptp/ptp_follower.h"
#include "airplay_tool/ptp/ptp_grandmaster.h"
#include "airplay_tool/ptp/ptp_message.h"
#include "airplay_tool/ptp/ptp_shared.h"
#include "airplay_tool/ptp/ptp_sockets.h"

namespace vt::airplay_tool::ptp {

namespace {

// Receivers a sender may register, and addresses remembered as heard from:
// bounded, whatever is sent to us.
constexpr size_t maxPeers = 64;
constexpr size_t maxHeard = 256;
constexpr int followerTickMs = 100;

int64_t monotonicNs() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

int sharedSocket(const std::string& path, std::string& why) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        why = "the shared socket's path is too long: " + path;
        return -1;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        why = std::string("cannot make the shared socket: ") + std::strerror(errno);
        return -1;
    }
    // We hold the PTP ports, so no other daemon lives: what is there is left over.
    ::unlink(path.c_str());
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        why = "cannot bind the shared socket " + path + ": " + std::strerror(errno);
        ::close(fd);
        return -1;
    }
    ::chmod(path.c_str(), 0600);
    return fd;
}

class Daemon {
  public:
    Daemon(const PtpDaemonOptions& options, PtpSockets sockets, StatusWriter& status, int shared)
        : options_(options),
          sockets_(std::move(sockets)),
          status_(status),
          shared_(shared),
          grandmaster_(clockIdentityFor(options.deviceID)),
          follower_(grandmaster_.port(), realtimeNs()) {}

    int run(int stopFd) {
        say();
        int64_t nextSync = monotonicNs(), nextAnnounce = nextSync;
        for (;;) {
            const int64_t now = monotonicNs();
            if (!options_.follow) {
                if (now >= nextAnnounce) {
                    announce();
                    nextAnnounce += Grandmaster::announceIntervalNs;
                }
                if (now >= nextSync) {
                    sync();
                    nextSync += Grandmaster::syncIntervalNs;
                    // After a stall, carry on from now rather than in a burst.
                    if (nextSync < now) nextSync = now + Grandmaster::syncIntervalNs;
                }
            } else {
                follow();
            }
            const int64_t due = options_.follow ? now + int64_t(followerTickMs) * 1'000'000
                                                : std::min(nextSync, nextAnnounce);
            const int waitMs = int(std::max<int64_t>(0, (due - monotonicNs()) / 1'000'000));
            pollfd fds[4] = {{sockets_.eventFd(), POLLIN, 0},
                             {sockets_.generalFd(), POLLIN, 0},
                             {shared_, POLLIN, 0},
                             {stopFd, POLLIN, 0}};
            if (::poll(fds, 4, waitMs) < 0 && errno != EINTR) return 1;
            if (fds[3].revents & POLLIN) return 0;
            if (fds[0].revents & POLLIN) received(sockets_.eventFd());
            if (fds[1].revents & POLLIN) received(sockets_.generalFd());
            if (fds[2].revents & POLLIN) answerSender();
        }
    }

  private:
    std::vector<in_addr> destinations() const {
        std::vector<in_addr> to = {PtpSockets::multicast()};
        for (const auto& [address, unused] : peers_) to.push_back(in_addr{address});
        return to;
    }

    void announce() {
        const auto bytes = encodeMessage(grandmaster_.announce(realtimeNs()));
        for (in_addr to : destinations()) sockets_.sendGeneral(bytes, to);
    }

    void sync() {
        for (in_addr to : destinations()) {
            const Message s = grandmaster_.sync();
            const auto left = sockets_.sendEvent(encodeMessage(s), to);
            if (left) sockets_.sendGeneral(encodeMessage(grandmaster_.followUp(s, *left)), to);
        }
    }

    void follow() {
        if (auto request = follower_.delayRequest(realtimeNs()); request && masterAddress_) {
            if (auto left = sockets_.sendEvent(encodeMessage(*request), *masterAddress_))
                follower_.delayRequestSent(request->sequenceId, *left);
        }
        const ClockState now = follower_.state(realtimeNs());
        if (now != lastState_) {
            lastState_ = now;
            say();
        }
    }

    void received(int fd) {
        for (int i = 0; i < 16; ++i) {
            auto datagram = sockets_.receive(fd);
            if (!datagram) return;
            const auto message = parseMessage(datagram->bytes);
            if (!message || message->source == grandmaster_.port()) continue;
            heard(datagram->from);
            if (options_.follow) {
                const bool fromMaster =
                    follower_.master() && message->source.clock == *follower_.master();
                follower_.receive(*message, datagram->receivedNs);
                if (fromMaster || (message->type == MessageType::announce && follower_.master() &&
                                   message->source.clock == *follower_.master()))
                    masterAddress_ = datagram->from;
                continue;
            }
            if (auto reply = grandmaster_.answer(*message, datagram->receivedNs)) {
                const bool unicast = message->flags & flag::unicast;
                sockets_.sendGeneral(encodeMessage(*reply),
                                     unicast ? datagram->from : PtpSockets::multicast());
            }
        }
    }

    void heard(in_addr from) {
        if (heard_.size() >= maxHeard && !heard_.count(from.s_addr)) heard_.clear();
        heard_[from.s_addr] = realtimeNs();
    }

    SharedStatus currentStatus() const {
        SharedStatus s;
        const ClockIdentity clock = options_.follow
                                        ? follower_.master().value_or(grandmaster_.port().clock)
                                        : grandmaster_.port().clock;
        s.clockID = clockIdentityText(clock);
        s.clockNumber = clockIdentityNumber(clock);
        s.mode = options_.follow ? "follow" : "lead";
        s.state = options_.follow ? clockStateName(follower_.state(realtimeNs())) : "ready";
        s.offsetNs = options_.follow ? follower_.offsetNs().value_or(0) : 0;
        s.peers = int(peers_.size());
        return s;
    }

    void answerSender() {
        for (int i = 0; i < 16; ++i) {
            char line[sharedLineBytes + 1];
            sockaddr_un from{};
            socklen_t fromLength = sizeof from;
            const ssize_t n = ::recvfrom(shared_, line, sharedLineBytes, 0,
                                         reinterpret_cast<sockaddr*>(&from), &fromLength);
            if (n <= 0) return;
            const auto request = parseSharedRequest(std::string_view(line, size_t(n)));
            if (!request) continue;
            if (request->kind == SharedRequest::Kind::addPeer && peers_.size() < maxPeers)
                peers_[request->peer->s_addr] = true;
            if (request->kind == SharedRequest::Kind::removePeer)
                peers_.erase(request->peer->s_addr);
            SharedStatus s = currentStatus();
            if (request->peer) s.heard = heard_.count(request->peer->s_addr) > 0;
            const std::string reply = sharedStatusLine(s);
            ::sendto(shared_, reply.data(), reply.size(), MSG_DONTWAIT,
                     reinterpret_cast<sockaddr*>(&from), fromLength);
        }
    }

    void say() {
        const SharedStatus s = currentStatus();
        status_.ptpClock("mode=" + s.mode + " clock_id=" + s.clockID + " state=" + s.state +
                         " offset_ns=" + std::to_string(s.offsetNs) +
                         " timestamps=" + (sockets_.kernelTimestamps() ? "kernel" : "user") +
                         " shared=" + options_.sharedPath);
    }

    const PtpDaemonOptions& options_;
    PtpSockets sockets_;
    StatusWriter& status_;
    int shared_;
    Grandmaster grandmaster_;
    Follower follower_;
    std::optional<in_addr> masterAddress_;
    std::optional<ClockState> lastState_;
    std::map<uint32_t, bool> peers_;
    std::map<uint32_t, int64_t> heard_;
};

}  // namespace

int runPtpDaemon(const PtpDaemonOptions& options, StatusWriter& status, int stopFd) {
    PtpSockets::Failure failure;
    std::string why;
    auto sockets = PtpSockets::open(options.interfaceAddress, failure, why);
    if (!sockets) {
        status.error(failure == PtpSockets::Failure::noPrivilege ? error_code::ptpNoPrivilege
                                                                 : error_code::ptpPorts,
                     0, why);
        return exitNoPorts;
    }
    const int shared = sharedSocket(options.sharedPath, why);
    if (shared < 0) {
        status.error(error_code::ptpPorts, 0, why);
        return 1;
    }
    const int result = Daemon(options, std::move(*sockets), status, shared).run(stopFd);
    ::close(shared);
    ::unlink(options.sharedPath.c_str());
    return result;
}

}  // namespace vt::airplay_tool::ptp
