// Cast TVs as rows. The supervisor decides which rows get a sender, retries
// and holds them; the model gives it the rows and devices it has, and turns
// what the senders report into the rows' status and latency.
#include <algorithm>
#include <atomic>

#include "cast/cast_sender.h"
#include "cast/cast_sync_sender.h"
#include "model/app_model.h"
#include "model/row_records.h"

namespace vt::model {

void AppModel::enableCast(dispatch::MainQueue& senderQueue) {
    const std::string name = guestSetup_ && !guestSetup_->options.computerName.empty()
                                 ? guestSetup_->options.computerName
                                 : std::string("Vellatone");
    auto factory = [this, &senderQueue, name](const cast::CastTarget& target, int slot,
                                              bool synced) {
        // The sender renders its slot until the supervisor replaces it; rows
        // that move get new senders.
        auto render = [this, slot](float* into, size_t frames) {
            engine_->renderAirPlay(slot, into, static_cast<uint32_t>(frames));
        };
        if (synced) {
            cast::CastSyncSender::Parts parts;
            parts.senderName = name;
            return std::static_pointer_cast<cast::CastOutputSender>(cast::CastSyncSender::make(
                target, std::move(render), senderQueue, main_, std::move(parts)));
        }
        return std::static_pointer_cast<cast::CastOutputSender>(
            cast::CastSender::make(target, std::move(render), senderQueue, main_));
    };
    enableCast(std::move(factory), true);
}

void AppModel::enableCast(cast::CastSupervisor::SenderFactory factory, bool trySync) {
    cast::CastSupervisor::Hooks hooks;
    hooks.prepareSlot = [this](int slot, double rateHz) {
        engine_->prepareAirPlaySlot(slot, rateHz);
    };
    hooks.statusChanged = [this](int slot) { castStatusChanged(slot); };
    hooks.latencyChanged = [this](int slot, double ms) { castLatencyChanged(slot, ms); };
    hooks.reconcileWanted = [this] { reconcileCastSenders(); };
    // Each attempt has its own 12 s before the row counts as stalled.
    hooks.senderStarted = [this](int slot) {
        if (validSlot(slot) < 0) return;
        rows_[slot].connectingSince = main_.now();
        rows_[slot].connectStalled = false;
    };
    hooks.senderStopped = [this](int slot) {
        if (validSlot(slot) < 0) return;
        rows_[slot].connectingSince.reset();
        rows_[slot].connectStalled = false;
    };
    castSupervisor_ = std::make_unique<cast::CastSupervisor>(main_, std::move(factory),
                                                             std::move(hooks), trySync);
}

bool AppModel::addCastOutput(const std::string& deviceID) {
    if (regularRowCount() >= maxRegularOutputs) return false;
    const auto available = availableCastDevices();
    auto device = std::find_if(available.begin(), available.end(),
                               [&](const auto& d) { return d.id == deviceID; });
    if (device == available.end()) return false;

    RowState row;
    row.id = newRowId();
    row.castID = device->id;
    row.castName = device->name;
    addNewRow(std::move(row));
    if (isRunning_) reconcileCastSenders();
    return true;
}

void AppModel::reconcileCastSenders() {
    if (!castSupervisor_) return;
    std::vector<cast::CastRowWanted> wanted;
    for (int slot = 0; slot < int(rows_.size()); ++slot) {
        const RowState& row = rows_[slot];
        // A row held after a restart waits for the user's word.
        if (row.castID && !row.disabled && !row.heldAfterRestart)
            wanted.push_back({slot, *row.castID});
    }
    std::vector<cast::CastDeviceSeen> devices;
    devices.reserve(castDevices_.size());
    for (const auto& d : castDevices_) devices.push_back({d.id, d.name, d.host, d.port});
    castSupervisor_->reconcile(isRunning_, wanted, devices);
    for (int slot = 0; slot < int(rows_.size()); ++slot)
        if (rows_[slot].castID && !castSupervisor_->hasSender(slot) &&
            !castSupervisor_->held(slot) && !castSupervisor_->status(slot))
            rows_[slot].castStatus.reset();
}

void AppModel::castStatusChanged(int slot) {
    if (validSlot(slot) < 0 || !rows_[slot].castID || !castSupervisor_) return;
    RowState& row = rows_[slot];
    row.castStatus = castSupervisor_->status(slot);
    row.castSynced = castSupervisor_->synced(slot);
    using Kind = cast::CastStatus::Kind;
    if (row.castStatus) {
        switch (row.castStatus->kind) {
            case Kind::connecting:
            case Kind::buffering:
                if (!row.connectingSince) row.connectingSince = main_.now();
                break;
            case Kind::streaming:
            case Kind::unreachable:
            case Kind::replaced:
                row.connectingSince.reset();
                row.connectStalled = false;
                break;
            default:
                break;
        }
    }
    stateChanged();
}

void AppModel::castLatencyChanged(int slot, double ms) {
    if (validSlot(slot) < 0 || !rows_[slot].castID) return;
    rows_[slot].streamLatencyMs = ms;
    pushDelays();
    stateChanged();
}

void AppModel::stopCastSenders() {
    if (castSupervisor_) castSupervisor_->stopAll();
    for (RowState& row : rows_) {
        if (!row.castID) continue;
        row.castStatus.reset();
        row.connectingSince.reset();
        row.streamLatencyMs = 0;
    }
}

}  // namespace vt::model
