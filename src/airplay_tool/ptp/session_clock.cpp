#include "airplay_tool/ptp/session_clock.h"

#include <arpa/inet.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <ctime>

#include "airplay_tool/ptp/clock_readiness.h"
#include "airplay_tool/ptp/ptp_engine.h"
#include "airplay_tool/ptp/ptp_sockets.h"

namespace vt::airplay_tool::ptp {

namespace {

int64_t monotonicMs() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace

SessionClock::SessionClock(Options options, StatusWriter& status)
    : options_(std::move(options)), status_(status) {
    in_addr a{};
    if (::inet_pton(AF_INET, options_.receiver.c_str(), &a) == 1) receiver_ = a;
}

SessionClock::~SessionClock() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        ending_ = true;
    }
    wake_.notify_all();
    if (reporter_.joinable()) reporter_.join();
    if (source_ == Source::shared && receiver_)
        askSharedClock(options_.sharedPath, {SharedRequest::Kind::removePeer, receiver_},
                       askTimeoutMs);
    if (ownThread_.joinable()) {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(ownStopFd_, &one, sizeof one);
        ownThread_.join();
    }
    if (ownStopFd_ >= 0) ::close(ownStopFd_);
}

SessionClock::Source SessionClock::attach() {
    if (options_.useShared) {
        const auto kind =
            options_.follow ? SharedRequest::Kind::followPeer : SharedRequest::Kind::addPeer;
        const SharedRequest join = receiver_ ? SharedRequest{kind, receiver_} : SharedRequest{};
        attached_ = askSharedClock(options_.sharedPath, join, askTimeoutMs);
        if (attached_) return source_ = Source::shared;
        status_.ptpClock("mode=own detail=\"the shared PTP daemon did not answer at " +
                         options_.sharedPath + "; running a clock of our own\"");
    }
    PtpSockets::Failure failure;
    std::string why;
    auto sockets = PtpSockets::open(options_.ourAddress, failure, why);
    if (!sockets) {
        status_.ptpClock("mode=none detail=\"no PTP clock for this session: " + why +
                         "; keeping time by NTP\"");
        return source_ = Source::none;
    }
    ownStopFd_ = ::eventfd(0, EFD_CLOEXEC);
    own_ = std::make_unique<PtpEngine>(PtpEngine::Options{options_.deviceID, options_.follow},
                                       std::move(*sockets));
    if (receiver_ && options_.follow)
        own_->followPeer(*receiver_);
    else if (receiver_)
        own_->addPeer(*receiver_);
    attached_ = own_->status();
    ownThread_ = std::thread([this] { own_->run(ownStopFd_); });
    return source_ = Source::own;
}

std::optional<SharedStatus> SessionClock::status() const {
    switch (source_) {
        case Source::shared: {
            const SharedRequest ask{SharedRequest::Kind::status, receiver_};
            return askSharedClock(options_.sharedPath, ask, askTimeoutMs);
        }
        case Source::own:
            return own_->status(receiver_);
        case Source::none:
            break;
    }
    return std::nullopt;
}

void SessionClock::reportReadiness() {
    if (source_ == Source::none) {
        using namespace std::chrono;
        status_.clockReadyNtp(
            0, duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
        return;
    }
    if (!reporter_.joinable()) reporter_ = std::thread([this] { report(); });
}

void SessionClock::report() {
    using namespace std::chrono;
    ClockReadiness readiness(monotonicMs());
    std::unique_lock<std::mutex> hold(lock_);
    while (!ending_) {
        hold.unlock();
        const auto now = status();
        const int64_t unixMs =
            duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
        if (auto line = readiness.update(monotonicMs(), unixMs, now))
            status_.clockReadyPtp(line->state, line->streakMs, line->exchanges, line->readyInMs,
                                  line->readyAtUnixMs);
        hold.lock();
        if (readiness.isReady()) {
            ready_ = true;
            return;
        }
        wake_.wait_for(hold, milliseconds(reportIntervalMs), [this] { return ending_; });
    }
}

bool SessionClock::isReady() const {
    std::lock_guard<std::mutex> hold(lock_);
    return ready_;
}

TimingPeerInfo SessionClock::peerInfo() const {
    TimingPeerInfo info;
    info.addresses = {options_.ourAddress};
    info.id = options_.ourAddress;
    info.clockID = attached_ ? attached_->clockNumber : 0;
    return info;
}

std::vector<std::string> SessionClock::peerList() const {
    return {options_.receiver, options_.ourAddress};
}

SessionClock::Reading SessionClock::read(int64_t realtimeNs) const {
    // Leading, PTP time is our clock; following, the offset is asked afresh.
    if (!attached_) return {realtimeNs, 0};
    if (attached_->mode == "lead") return {realtimeNs, attached_->clockNumber};
    const SharedStatus now = status().value_or(*attached_);
    return {realtimeNs + now.offsetNs, now.clockNumber};
}

}  // namespace vt::airplay_tool::ptp
