#include "airplay_tool/ptp/ptp_follower.h"

#include <algorithm>
#include <vector>

namespace vt::airplay_tool::ptp {

const char* clockStateName(ClockState state) {
    switch (state) {
        case ClockState::cold:
            return "cold";
        case ClockState::probing:
            return "probing";
        case ClockState::ready:
            return "ready";
        case ClockState::stalled:
            return "stalled";
    }
    return "cold";
}

Follower::Follower(PortIdentity ownPort, int64_t startedNs, uint8_t transportSpecific)
    : own_(ownPort), startedNs_(startedNs), transportSpecific_(transportSpecific) {}

namespace {

// Times past 2106 and corrections over a second are no clock's we can
// follow; kept out, every sum of times below stays far from overflowing.
constexpr uint64_t latestSeconds = uint64_t(1) << 32;
constexpr int64_t largestCorrectionNs = 1'000'000'000;

bool believable(const Message& m) {
    const int64_t correction = correctionNs(m);
    return m.timestamp.seconds < latestSeconds && correction <= largestCorrectionNs &&
           correction >= -largestCorrectionNs;
}

}  // namespace

void Follower::receive(const Message& m, int64_t receivedNs) {
    if (m.source == own_ || !believable(m)) return;
    if (m.type == MessageType::announce && !master_) master_ = m.source;
    if (!master_ || !(m.source == *master_)) return;
    if (!firstHeardNs_) firstHeardNs_ = receivedNs;
    switch (m.type) {
        case MessageType::sync:
            lastSyncNs_ = receivedNs;
            syncSequence_ = m.sequenceId;
            syncReceivedNs_ = receivedNs;
            syncCorrectionNs_ = correctionNs(m);
            if (!(m.flags & flag::twoStep)) {
                // One-step: the time is in the Sync itself.
                t1_ = m.timestamp.toNs() + syncCorrectionNs_;
                t2_ = receivedNs;
                if (pathDelay_) measured(*t1_ - (*t2_ - *pathDelay_));
            }
            break;
        case MessageType::followUp:
            if (!syncSequence_ || *syncSequence_ != m.sequenceId) break;
            syncSequence_.reset();
            t1_ = m.timestamp.toNs() + syncCorrectionNs_ + correctionNs(m);
            t2_ = syncReceivedNs_;
            if (pathDelay_) measured(*t1_ - (*t2_ - *pathDelay_));
            break;
        case MessageType::delayResp: {
            if (!(m.requesting == own_) || !delaySequence_ || *delaySequence_ != m.sequenceId ||
                !t3_ || !t1_ || !t2_)
                break;
            delaySequence_.reset();
            const int64_t t4 = m.timestamp.toNs() - correctionNs(m);
            const int64_t delay = ((*t2_ - *t1_) + (t4 - *t3_)) / 2;
            // A negative path is a measurement across a step of either clock.
            if (delay < 0) break;
            pathDelay_ = delay;
            measured(*t1_ - (*t2_ - delay));
            break;
        }
        default:
            break;
    }
}

std::optional<Message> Follower::delayRequest(int64_t nowNs) {
    if (!master_ || !t1_) return std::nullopt;
    if (lastDelayReqNs_ && nowNs - *lastDelayReqNs_ < delayReqIntervalNs) return std::nullopt;
    lastDelayReqNs_ = nowNs;
    Message m;
    m.type = MessageType::delayReq;
    m.transportSpecific = transportSpecific_;
    m.source = own_;
    m.sequenceId = nextDelaySequence_++;
    delaySequence_ = m.sequenceId;
    t3_.reset();
    return m;
}

void Follower::delayRequestSent(uint16_t sequence, int64_t sentNs) {
    if (delaySequence_ && *delaySequence_ == sequence) t3_ = sentNs;
}

void Follower::measured(int64_t masterMinusOurs) {
    offsets_.push_back(masterMinusOurs);
    if (offsets_.size() > offsetsKept) offsets_.pop_front();
}

std::optional<int64_t> Follower::offsetNs() const {
    if (offsets_.empty()) return std::nullopt;
    std::vector<int64_t> sorted(offsets_.begin(), offsets_.end());
    std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
    return sorted[sorted.size() / 2];
}

std::optional<ClockIdentity> Follower::master() const {
    if (!master_) return std::nullopt;
    return master_->clock;
}

ClockState Follower::state(int64_t nowNs) const {
    const int64_t quietSince = lastSyncNs_.value_or(firstHeardNs_.value_or(startedNs_));
    if (nowNs - quietSince > stallNs) return ClockState::stalled;
    return offsets_.size() >= offsetsForReady ? ClockState::ready : ClockState::probing;
}

}  // namespace vt::airplay_tool::ptp
