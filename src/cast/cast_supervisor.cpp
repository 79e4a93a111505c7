#include "cast/cast_supervisor.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "cast/cast_sync_sender.h"

namespace vt::cast {
namespace {

constexpr double kWavRateHz = 44100.0;
constexpr double kSyncedRateHz = 48000.0;

// Moves every entry at a slot above `slot` down by one and drops `slot`'s.
template <typename Map>
void shiftDown(Map& map, int slot) {
    Map moved;
    for (auto& [key, value] : map) {
        if (key == slot) continue;
        moved.emplace(key > slot ? key - 1 : key, std::move(value));
    }
    map = std::move(moved);
}

void shiftDown(std::set<int>& set, int slot) {
    std::set<int> moved;
    for (int key : set)
        if (key != slot) moved.insert(key > slot ? key - 1 : key);
    set = std::move(moved);
}

}  // namespace

std::string castSubtitle(const std::optional<CastStatus>& status, double latencyMs, bool synced,
                         bool missing) {
    if (missing) return "Cast · not on network";
    if (!status) return "Google Cast";
    switch (status->kind) {
        case CastStatus::Kind::connecting:
            return "Cast · starting on the TV";
        case CastStatus::Kind::buffering:
            return "Cast · lining up with the others";
        case CastStatus::Kind::streaming: {
            if (!(latencyMs > 0)) return "Cast · streaming";
            char seconds[32];
            std::snprintf(seconds, sizeof seconds, "%.1f", latencyMs / 1000.0);
            return std::string("Cast · streaming · ") + seconds +
                   (synced ? " s lag, clock-synced" : " s lag, auto-synced");
        }
        case CastStatus::Kind::unreachable:
            return "Cast · the firewall blocks the TV";
        case CastStatus::Kind::replaced:
            return "Cast · the TV is playing something else";
        case CastStatus::Kind::stopped:
            return "Google Cast";
        case CastStatus::Kind::failed:
            return "Cast · unavailable";
    }
    return "Google Cast";
}

CastSupervisor::CastSupervisor(dispatch::MainQueue& mainQueue, SenderFactory factory, Hooks hooks,
                               bool trySync)
    : mainQueue_(mainQueue),
      factory_(std::move(factory)),
      hooks_(std::move(hooks)),
      trySync_(trySync) {}

CastSupervisor::~CastSupervisor() {
    stopAll();
}

void CastSupervisor::reconcile(bool running, const std::vector<CastRowWanted>& rows,
                               const std::vector<CastDeviceSeen>& devices) {
    if (!running) {
        stopAll();
        return;
    }
    std::map<int, const CastDeviceSeen*> wanted;
    for (const auto& row : rows) {
        const auto device =
            std::find_if(devices.begin(), devices.end(),
                         [&](const CastDeviceSeen& d) { return d.id == row.deviceID; });
        if (device != devices.end() && device->host) wanted[row.slot] = &*device;
    }
    std::vector<int> stale;
    for (const auto& [slot, running] : senders_) {
        const auto it = wanted.find(slot);
        if (it == wanted.end() || it->second->id != running.deviceID) stale.push_back(slot);
    }
    for (int slot : stale) stopSender(slot);
    for (const auto& [slot, device] : wanted)
        if (!senders_.contains(slot) && !held_.contains(slot)) startSender(slot, *device);
}

void CastSupervisor::startSender(int slot, const CastDeviceSeen& device) {
    const bool synced = trySync_ && !syncUnavailable_.contains(device.id);
    if (hooks_.prepareSlot) hooks_.prepareSlot(slot, synced ? kSyncedRateHz : kWavRateHz);
    auto sender = factory_({device.id, device.host, device.port}, slot, synced);
    if (!sender) return;
    const CastOutputSender* identity = sender.get();
    sender->onStatus = [this, slot, identity](const CastStatus& status) {
        onStatus(slot, identity, status);
    };
    sender->onLatency = [this, slot, identity](double ms) {
        const auto it = senders_.find(slot);
        if (it == senders_.end() || it->second.sender.get() != identity) return;
        if (hooks_.latencyChanged) hooks_.latencyChanged(slot, ms);
    };
    senders_[slot] = Running{sender, device.id, synced};
    statuses_[slot] = CastStatus{CastStatus::Kind::connecting, {}};
    syncedRows_[slot] = synced;
    if (hooks_.senderStarted) hooks_.senderStarted(slot);
    sender->send(meta_);
    sender->start();
    if (hooks_.statusChanged) hooks_.statusChanged(slot);
}

void CastSupervisor::onStatus(int slot, const CastOutputSender* from, const CastStatus& status) {
    const auto it = senders_.find(slot);
    // A sender that was replaced or stopped has nothing more to say.
    if (it == senders_.end() || it->second.sender.get() != from) return;
    if (status.kind == CastStatus::Kind::failed && status.reason == kSyncReceiverUnavailable) {
        syncUnavailable_.insert(it->second.deviceID);
        stopSender(slot);
        if (hooks_.reconcileWanted) hooks_.reconcileWanted();
        return;
    }
    statuses_[slot] = status;
    syncedRows_[slot] = it->second.synced;
    switch (status.kind) {
        case CastStatus::Kind::unreachable:
        case CastStatus::Kind::replaced:
            // A firewall or another app on the TV will not pass by itself.
            held_.insert(slot);
            break;
        case CastStatus::Kind::streaming:
            tries_.erase(slot);
            break;
        case CastStatus::Kind::failed:
        case CastStatus::Kind::stopped: {
            if (retryPending_.contains(slot) || held_.contains(slot)) break;
            const int before = tries_[slot]++;
            if (before >= kMaxTries) break;
            const double wait =
                std::min(kLongestRetrySeconds, kFirstRetrySeconds * std::pow(2.0, before));
            retryPending_.insert(slot);
            retryTimers_[slot] = mainQueue_.postAfter(wait, [this, slot, from] {
                retryPending_.erase(slot);
                retryTimers_.erase(slot);
                const auto current = senders_.find(slot);
                if (current == senders_.end() || current->second.sender.get() != from) return;
                const CastStatus last = statuses_[slot];
                stopSender(slot);
                statuses_[slot] = last;  // the row keeps its words until the new sender speaks
                if (hooks_.reconcileWanted) hooks_.reconcileWanted();
            });
            break;
        }
        default:
            break;
    }
    if (hooks_.statusChanged) hooks_.statusChanged(slot);
}

void CastSupervisor::stopSender(int slot) {
    const auto it = senders_.find(slot);
    if (it == senders_.end()) return;
    auto sender = std::move(it->second.sender);
    senders_.erase(it);
    retryPending_.erase(slot);
    retryTimers_.erase(slot);
    statuses_.erase(slot);
    sender->stop();
    if (hooks_.senderStopped) hooks_.senderStopped(slot);
}

void CastSupervisor::stopAll() {
    std::vector<int> slots;
    for (const auto& [slot, running] : senders_) slots.push_back(slot);
    for (int slot : slots) stopSender(slot);
    retryTimers_.clear();
    retryPending_.clear();
}

void CastSupervisor::removed(int slot) {
    // A sender renders its slot: those behind the removed row are rebuilt
    // at their new slots, not moved.
    std::vector<int> behind;
    for (const auto& [s, running] : senders_)
        if (s >= slot) behind.push_back(s);
    for (int s : behind) stopSender(s);
    shiftDown(statuses_, slot);
    shiftDown(syncedRows_, slot);
    shiftDown(tries_, slot);
    shiftDown(held_, slot);
    if (hooks_.reconcileWanted) hooks_.reconcileWanted();
}

void CastSupervisor::reconnect(int slot, const std::string& deviceID) {
    held_.erase(slot);
    tries_.erase(slot);
    syncUnavailable_.erase(deviceID);
    stopSender(slot);
    if (hooks_.reconcileWanted) hooks_.reconcileWanted();
}

void CastSupervisor::send(std::optional<sendspin::TrackInfo> meta) {
    meta_ = std::move(meta);
    for (auto& [slot, running] : senders_) running.sender->send(meta_);
}

std::optional<CastStatus> CastSupervisor::status(int slot) const {
    const auto it = statuses_.find(slot);
    if (it == statuses_.end()) return std::nullopt;
    return it->second;
}

bool CastSupervisor::synced(int slot) const {
    const auto it = syncedRows_.find(slot);
    return it != syncedRows_.end() && it->second;
}

int CastSupervisor::tries(int slot) const {
    const auto it = tries_.find(slot);
    return it == tries_.end() ? 0 : it->second;
}

std::map<int, uint16_t> CastSupervisor::firewallBlocked() const {
    std::map<int, uint16_t> out;
    for (const auto& [slot, status] : statuses_)
        if (status.kind == CastStatus::Kind::unreachable) out[slot] = status.streamPort.value_or(0);
    return out;
}

}  // namespace vt::cast
