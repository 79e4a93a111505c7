#include "airplay_tool/ptp/ptp_engine.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace vt::airplay_tool::ptp {

namespace {

constexpr int64_t followerTickNs = 100'000'000;
constexpr int maxDatagramsPerWake = 16;

int64_t monotonicNs() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

}  // namespace

PtpEngine::PtpEngine(Options options, PtpSockets sockets)
    : options_(std::move(options)),
      sockets_(std::move(sockets)),
      grandmaster_(clockIdentityFor(options_.deviceID)),
      follower_(grandmaster_.port(), realtimeNs()),
      following_(options_.follow) {}

int PtpEngine::run(int stopFd, int extraFd, const std::function<void()>& onExtra) {
    int64_t nextSync = monotonicNs(), nextAnnounce = nextSync;
    for (;;) {
        const int64_t now = monotonicNs();
        int64_t due = now + followerTickNs;
        if (!following_) {
            if (now >= nextAnnounce) {
                announce();
                nextAnnounce += Grandmaster::announceIntervalNs;
                if (nextAnnounce < now) nextAnnounce = now + Grandmaster::announceIntervalNs;
            }
            if (now >= nextSync) {
                sync();
                nextSync += Grandmaster::syncIntervalNs;
                // After a stall, carry on from now rather than in a burst.
                if (nextSync < now) nextSync = now + Grandmaster::syncIntervalNs;
            }
            due = std::min(nextSync, nextAnnounce);
        } else {
            follow();
        }
        const int waitMs = int(std::max<int64_t>(0, (due - monotonicNs()) / 1'000'000));
        pollfd fds[4] = {{sockets_.eventFd(), POLLIN, 0},
                         {sockets_.generalFd(), POLLIN, 0},
                         {stopFd, POLLIN, 0},
                         {extraFd, POLLIN, 0}};
        if (::poll(fds, extraFd >= 0 ? 4 : 3, waitMs) < 0 && errno != EINTR) return 1;
        if (fds[2].revents & POLLIN) return 0;
        if (fds[0].revents & POLLIN) received(sockets_.eventFd());
        if (fds[1].revents & POLLIN) received(sockets_.generalFd());
        if (extraFd >= 0 && (fds[3].revents & POLLIN) && onExtra) onExtra();
    }
}

std::vector<in_addr> PtpEngine::destinationsLocked() const {
    std::vector<in_addr> to = {PtpSockets::multicast()};
    for (const auto& [address, unused] : peers_) to.push_back(in_addr{address});
    return to;
}

void PtpEngine::announce() {
    std::lock_guard<std::mutex> hold(lock_);
    const auto bytes = encodeMessage(grandmaster_.announce(realtimeNs()));
    for (in_addr to : destinationsLocked()) sockets_.sendGeneral(bytes, to);
}

void PtpEngine::sync() {
    std::lock_guard<std::mutex> hold(lock_);
    for (in_addr to : destinationsLocked()) {
        const Message s = grandmaster_.sync();
        if (const auto left = sockets_.sendEvent(encodeMessage(s), to))
            sockets_.sendGeneral(encodeMessage(grandmaster_.followUp(s, *left)), to);
    }
}

void PtpEngine::follow() {
    std::optional<SharedStatus> changed;
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (auto request = follower_.delayRequest(realtimeNs()); request && masterAddress_) {
            if (auto left = sockets_.sendEvent(encodeMessage(*request), *masterAddress_))
                follower_.delayRequestSent(request->sequenceId, *left);
        }
        const ClockState now = follower_.state(realtimeNs());
        if (now != lastState_) {
            lastState_ = now;
            changed = statusLocked();
        }
    }
    if (changed && onStateChange) onStateChange(*changed);
}

void PtpEngine::received(int fd) {
    std::lock_guard<std::mutex> hold(lock_);
    for (int i = 0; i < maxDatagramsPerWake; ++i) {
        auto datagram = sockets_.receive(fd);
        if (!datagram) return;
        const auto message = parseMessage(datagram->bytes);
        if (!message || message->source == grandmaster_.port()) continue;
        const uint32_t from = datagram->from.s_addr;
        if (heard_.size() >= maxHeard && !heard_.count(from)) heard_.clear();
        Heard& heard = heard_[from];
        heard.lastNs = datagram->receivedNs;
        ++heard.count;
        if (following_) {
            // The clock followed is the receiver's that asked for it, else
            // one of the registered receivers', else the first to announce.
            const bool choosing = !follower_.master() && message->type == MessageType::announce;
            if (choosing && followed_ && from != followed_->s_addr) continue;
            if (choosing && !peers_.empty() && !peers_.count(from)) continue;
            follower_.receive(*message, datagram->receivedNs);
            if (follower_.master() && message->source.clock == *follower_.master())
                masterAddress_ = datagram->from;
            continue;
        }
        const bool unicast = message->flags & flag::unicast;
        if (auto reply = grandmaster_.answer(*message, datagram->receivedNs))
            sockets_.sendGeneral(encodeMessage(*reply),
                                 unicast ? datagram->from : PtpSockets::multicast());
        if (auto reply = grandmaster_.answerPeerDelay(*message, datagram->receivedNs)) {
            const in_addr to = unicast ? datagram->from : PtpSockets::peerDelayMulticast();
            if (const auto left = sockets_.sendEvent(encodeMessage(*reply), to))
                sockets_.sendGeneral(encodeMessage(grandmaster_.peerDelayFollowUp(*message, *left)),
                                     to);
        }
    }
}

SharedStatus PtpEngine::statusLocked() const {
    SharedStatus s;
    const ClockIdentity clock = following_ ? follower_.master().value_or(grandmaster_.port().clock)
                                           : grandmaster_.port().clock;
    s.clockID = clockIdentityText(clock);
    s.clockNumber = clockIdentityNumber(clock);
    s.mode = following_ ? "follow" : "lead";
    s.state = following_ ? clockStateName(follower_.state(realtimeNs())) : "ready";
    s.offsetNs = following_ ? follower_.offsetNs().value_or(0) : 0;
    s.peers = int(peers_.size());
    return s;
}

SharedStatus PtpEngine::status(std::optional<in_addr> peer) const {
    std::lock_guard<std::mutex> hold(lock_);
    SharedStatus s = statusLocked();
    if (peer) {
        auto it = heard_.find(peer->s_addr);
        s.heard = it != heard_.end();
        s.exchanges = it == heard_.end() ? 0 : it->second.count;
    }
    return s;
}

void PtpEngine::addPeer(in_addr peer) {
    std::lock_guard<std::mutex> hold(lock_);
    if (peers_.size() < maxPeers) peers_[peer.s_addr] = true;
}

void PtpEngine::followPeer(in_addr peer) {
    std::lock_guard<std::mutex> hold(lock_);
    if (peers_.size() < maxPeers) peers_[peer.s_addr] = true;
    if (following_ && followed_ && followed_->s_addr == peer.s_addr) return;
    following_ = true;
    followed_ = peer;
    follower_ = Follower(grandmaster_.port(), realtimeNs());
    masterAddress_.reset();
    lastState_.reset();
}

void PtpEngine::removePeer(in_addr peer) {
    std::lock_guard<std::mutex> hold(lock_);
    peers_.erase(peer.s_addr);
}

}  // namespace vt::airplay_tool::ptp
