#include "airplay/airplay_supervisor.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "airplay/receiver_traits.h"

namespace vt::airplay {

using Kind = AirPlayStatus::Kind;

AirPlaySupervisor::AirPlaySupervisor(dispatch::MainQueue& main, Hooks hooks)
    : main_(main), hooks_(std::move(hooks)) {}

AirPlaySupervisor::~AirPlaySupervisor() {
    *alive_ = false;
    timers_.clear();
    for (auto& [slot, sender] : senders_) sender->stop();
    senders_.clear();
}

std::optional<discovery::AirPlayReceiver> AirPlaySupervisor::receiver(const std::string& id) const {
    for (const auto& r : receivers_)
        if (r.id == id) return r;
    return std::nullopt;
}

const AirPlaySender* AirPlaySupervisor::sender(int slot) const {
    auto it = senders_.find(slot);
    return it == senders_.end() ? nullptr : it->second.get();
}

std::optional<AirPlayStatus> AirPlaySupervisor::status(int slot) const {
    auto it = statuses_.find(slot);
    if (it == statuses_.end()) return std::nullopt;
    return it->second;
}

void AirPlaySupervisor::setReceivers(std::vector<discovery::AirPlayReceiver> receivers) {
    receivers_ = std::move(receivers);
    reconcile();
}

void AirPlaySupervisor::reconcile() {
    const auto tool = hooks_.tool();
    if (!hooks_.engineRunning() || !tool) {
        stopAll();
        return;
    }
    std::map<int, discovery::AirPlayReceiver> wanted;
    const std::vector<Row> rows = hooks_.rows();
    for (const Row& row : rows)
        if (auto r = receiver(row.receiverID); r && r->host) wanted[row.slot] = *r;
    std::vector<int> unwanted;
    for (const auto& [slot, id] : key_) {
        auto w = wanted.find(slot);
        if (w == wanted.end() || w->second.id != id) unwanted.push_back(slot);
    }
    for (int slot : unwanted) stopSender(slot);
    for (const auto& [slot, r] : wanted)
        if (!key_.count(slot) && !exhausted_.count(slot)) start(slot, r);
    // A row that waits with no sender yet is connecting all the same.
    for (const Row& row : rows)
        if (!row.heldAfterRestart && receiver(row.receiverID) && !senders_.count(row.slot) &&
            !exhausted_.count(row.slot))
            hooks_.connectingChanged(row.slot, true);
}

void AirPlaySupervisor::start(int slot, const discovery::AirPlayReceiver& r) {
    hooks_.prepareSlot(slot);
    AirPlaySender::Config config;
    config.binary = *hooks_.tool();
    config.receiver = r;
    config.password = hooks_.password(r.id);
    if (hooks_.credential) config.credential = hooks_.credential(r.id);
    config.deviceID = hooks_.deviceID();
    if (isAirPlay1(r)) {
        // An AirPlay 1 receiver has no PTP clock to share: its tool keeps
        // time by NTP and reports its own lead, so it is launched for NTP
        // rather than PTP, where it would only ever answer clockUnshared.
        config.timing = AirPlaySender::ntp;
        config.route = AirPlaySender::raopRoute;
    } else {
        config.timing = AirPlaySender::ptp;
        config.route = hooks_.route(r.id).value_or(AirPlaySender::nativeRoute);
        // Whether it started is not asked: the sender shares the clock only
        // if it runs, and otherwise the tool reports what it could do alone.
        clock().ensureRunning(config.binary, AirPlaySender::localAddress(*r.host), config.deviceID);
        config.ptpShared = clock().isRunning();
    }
    config.render = [render = hooks_.render, slot](float* into, uint32_t frames) {
        render(slot, into, frames);
    };
    auto sender = hooks_.makeSender ? hooks_.makeSender(std::move(config))
                                    : std::make_unique<AirPlaySender>(std::move(config), main_);
    const std::string id = r.id;
    std::weak_ptr<bool> alive = alive_;
    sender->onStatus = [this, slot, id, alive](const AirPlayStatus& s) {
        if (auto a = alive.lock(); a && *a) handle(slot, id, s);
    };
    sender->onLatency = [this, slot, id, alive](double ms) {
        auto a = alive.lock();
        if (!a || !*a || !stillFor(slot, id) || !senders_.count(slot)) return;
        hooks_.latencyChanged(slot, ms);
    };
    AirPlaySender& started = *sender;
    senders_[slot] = std::move(sender);
    key_[slot] = id;
    hooks_.connectingChanged(slot, true);
    if (track_) started.send(*track_);
    started.start();
}

void AirPlaySupervisor::stopSender(int slot) {
    auto it = senders_.find(slot);
    if (it != senders_.end()) {
        std::unique_ptr<AirPlaySender> sender = std::move(it->second);
        senders_.erase(it);
        sender->stop();
    }
    if (!key_.erase(slot) && it == senders_.end()) return;
    statuses_.erase(slot);
    hooks_.statusChanged(slot, std::nullopt, false);
    hooks_.connectingChanged(slot, false);
    hooks_.latencyChanged(slot, 0);
}

void AirPlaySupervisor::waitForUser(int slot) {
    exhausted_.insert(slot);
    // The sender goes now, so that whatever it says afterwards (the tool's
    // exit after a refusal) is neither retried as an ordinary failure nor
    // put over the status; the key and the status stay, so that the row
    // keeps saying why.
    if (auto it = senders_.find(slot); it != senders_.end()) {
        auto sender = std::move(it->second);
        senders_.erase(it);
        sender->stop();
    }
    hooks_.connectingChanged(slot, false);
}

void AirPlaySupervisor::engineStopped() {
    stopAll();
    clock().stop();
}

void AirPlaySupervisor::stopAll() {
    std::vector<int> slots;
    for (const auto& [slot, id] : key_) slots.push_back(slot);
    for (int slot : slots) stopSender(slot);
}

void AirPlaySupervisor::rebuild(int removed) {
    std::vector<int> behind;
    for (const auto& [slot, id] : key_)
        if (slot >= removed) behind.push_back(slot);
    for (int slot : behind) stopSender(slot);
    auto keepBelow = [removed](auto& table) {
        for (auto it = table.begin(); it != table.end();) {
            const int slot = [&] {
                if constexpr (std::is_same_v<std::decay_t<decltype(*it)>, int>)
                    return *it;
                else
                    return it->first;
            }();
            it = slot >= removed ? table.erase(it) : std::next(it);
        }
    };
    keepBelow(exhausted_);
    keepBelow(keepTrying_);
    keepBelow(connectTries_);
    keepBelow(approvalTries_);
    keepBelow(unsharedTries_);
    keepBelow(retryPending_);
    keepBelow(timers_);
    reconcile();
}

void AirPlaySupervisor::reconnect(int slot) {
    approvalTries_.erase(slot);
    connectTries_.erase(slot);
    exhausted_.erase(slot);
    keepTrying_.insert(slot);
    stopSender(slot);
    reconcile();
}

void AirPlaySupervisor::passwordGiven(int slot) {
    exhausted_.erase(slot);
    approvalTries_.erase(slot);
    connectTries_.erase(slot);
    if (hooks_.engineRunning()) {
        stopSender(slot);
        reconcile();
    }
}

void AirPlaySupervisor::send(const AirPlaySender::Metadata& meta) {
    track_ = meta;
    for (auto& [slot, sender] : senders_) sender->send(meta);
}

bool AirPlaySupervisor::stillFor(int slot, const std::string& id) const {
    auto it = key_.find(slot);
    return it != key_.end() && it->second == id;
}

void AirPlaySupervisor::later(double seconds, int slot, std::function<void()> task) {
    // Timers that have run are let go here, so that a row retried every few
    // seconds for hours keeps no trail of them.
    for (auto it = timers_.begin(); it != timers_.end();)
        it = *it->second.fired ? timers_.erase(it) : std::next(it);
    std::weak_ptr<bool> alive = alive_;
    auto fired = std::make_shared<bool>(false);
    // Marked after it ran, so that a timer is never let go while it runs.
    auto handle = main_.postAfter(seconds, [alive, fired, task = std::move(task)] {
        if (auto a = alive.lock(); a && *a) task();
        *fired = true;
    });
    timers_.emplace(slot, Timer{fired, std::move(handle)});
}

void AirPlaySupervisor::handle(int slot, const std::string& id, const AirPlayStatus& reported) {
    // A report from a sender already replaced.
    if (!stillFor(slot, id)) return;
    const auto r = receiver(id);
    AirPlayStatus status = reported;
    // An AirPlay 1 receiver has no pairing: when it wants authentication
    // it wants its password.
    if (status.kind == Kind::authRequired && r && isAirPlay1(*r))
        status.kind = Kind::passwordRequired;
    if (status.kind == Kind::passwordRequired) {
        statuses_[slot] = status;
        hooks_.statusChanged(slot, status, false);
        const bool stored = hooks_.password(id).has_value();
        const bool onNative =
            hooks_.route(id).value_or(AirPlaySender::nativeRoute) == AirPlaySender::nativeRoute;
        if (stored && onNative && r && !isAirPlay1(*r)) {
            // One more try by the compatible route, with the same password.
            hooks_.setRoute(id, std::string(AirPlaySender::compatRoute));
            stopSender(slot);
            reconcile();
            return;
        }
        if (stored) hooks_.setRoute(id, std::nullopt);
        waitForUser(slot);
        hooks_.askPassword(slot);
        return;
    }
    const bool approval = status.kind == Kind::needsApproval ||
                          (status.kind == Kind::clockStalled && r && isAppleModel(*r));
    if (approval) {
        const int count = ++approvalTries_[slot];
        statuses_[slot] = status;
        hooks_.statusChanged(slot, status, false);
        if (!keepTrying_.count(slot) && count > approvalTriesBeforeGivingUp) {
            waitForUser(slot);
            return;
        }
        const double wait =
            count > approvalTriesBeforeGivingUp ? keepTryingSeconds : approvalRetrySeconds;
        later(wait, slot, [this, slot, id, status] {
            auto now = statuses_.find(slot);
            if (now == statuses_.end() || !(now->second == status) || !stillFor(slot, id)) return;
            stopSender(slot);
            reconcile();
        });
        return;
    }
    if (status.kind == Kind::streaming) {
        approvalTries_.erase(slot);
        connectTries_.erase(slot);
        keepTrying_.erase(slot);
        hooks_.connectingChanged(slot, false);
    }
    statuses_[slot] = status;
    hooks_.statusChanged(slot, status, status.kind == Kind::streaming);
    switch (status.kind) {
        case Kind::streaming:
            unsharedTries_[slot] = 0;
            return;
        case Kind::clockUnshared: {
            // The first report while the daemon runs is an ordinary failure:
            // the daemon may still be settling. After that, or without a
            // daemon, a new daemon is tried.
            const int before = unsharedTries_[slot]++;
            if (before == 0 && clock().isRunning()) {
                ordinaryFailure(slot, id);
                return;
            }
            unsharedTries_[slot] = 0;
            recoverSharedClock();
            return;
        }
        case Kind::failed:
        case Kind::stopped:
        case Kind::clockStalled:
            ordinaryFailure(slot, id);
            return;
        case Kind::forbidden:
            waitForUser(slot);  // only the notice's Try again changes a refusal
            return;
        case Kind::authRequired: {
            // Pairing is offered by itself only where a code is shown and
            // none was tried; otherwise the row's menu offers it.
            auto sender = senders_.find(slot);
            const bool hadCredential =
                sender != senders_.end() && sender->second->config().credential.has_value();
            if (!hadCredential && r && wantsPIN(*r) && hooks_.askPairing) hooks_.askPairing(slot);
            return;
        }
        default:
            return;
    }
}

void AirPlaySupervisor::ordinaryFailure(int slot, const std::string& id) {
    if (retryPending_.count(slot)) return;  // a failure while a retry waits does not count
    const int before = connectTries_[slot];
    connectTries_[slot] = before + 1;
    if (before < ordinaryRetries) {
        scheduleRetry(slot, id, before + 1);
        return;
    }
    if (!keepTrying_.count(slot)) {
        hooks_.connectingChanged(slot, false);
        return;  // the row shows it as unavailable
    }
    retryPending_.insert(slot);
    later(keepTryingSeconds, slot, [this, slot, id] {
        retryPending_.erase(slot);
        if (!hooks_.engineRunning() || !stillFor(slot, id)) return;
        stopSender(slot);
        reconcile();
    });
}

void AirPlaySupervisor::scheduleRetry(int slot, const std::string& id, int attempt) {
    const double delay =
        std::min(longestRetrySeconds, firstRetrySeconds * std::pow(2.0, attempt - 1));
    retryPending_.insert(slot);
    later(delay, slot, [this, slot, id] {
        retryPending_.erase(slot);
        if (!hooks_.engineRunning() || !stillFor(slot, id)) return;
        stopSender(slot);
        reconcile();
    });
}

void AirPlaySupervisor::recoverSharedClock() {
    if (!hooks_.engineRunning() || recoveringClock_ || clockRecoveries_ >= maxClockRecoveries)
        return;
    ++clockRecoveries_;
    recoveringClock_ = true;
    stopAll();
    clock().stop();
    later(clockRecoverySeconds, -1, [this] {
        recoveringClock_ = false;
        if (hooks_.engineRunning()) reconcile();
    });
}

std::string airplaySubtitle(bool missing, const std::optional<AirPlayStatus>& status,
                            double latencyMs, bool leadsOwnGroup) {
    if (missing) return "AirPlay · not on network";
    if (!status) return "AirPlay";
    switch (status->kind) {
        case Kind::connecting:
        case Kind::stopped:
            return "AirPlay";
        case Kind::streaming: {
            if (latencyMs <= 0) return "AirPlay · streaming";
            char text[64];
            std::snprintf(text, sizeof text, "%.1f", latencyMs / 1000.0);
            return std::string("AirPlay · streaming · ") + text + " s lag, auto-synced";
        }
        case Kind::authRequired:
            return "AirPlay · needs pairing";
        case Kind::forbidden:
            return "AirPlay · that Mac allows its own user only";
        case Kind::clockStalled:
            return leadsOwnGroup ? "AirPlay · leads its own group, will not follow this computer"
                                 : "AirPlay · connected, no clock from that device";
        case Kind::needsApproval:
            return "AirPlay · waiting for that Mac to allow it";
        case Kind::clockUnshared:
            return "AirPlay · clock in use, retrying";
        case Kind::passwordRequired:
            return "AirPlay · needs its password";
        case Kind::failed:
            return "AirPlay · unavailable";
    }
    return "AirPlay";
}

}  // namespace vt::airplay
