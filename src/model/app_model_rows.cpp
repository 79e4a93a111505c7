// Making, changing and removing rows. Because a row's index is its engine
// slot, inserting or removing one renumbers every row behind it: each of
// them is pushed to its new slot and stored under its new index.
#include <algorithm>
#include <cmath>

#include "delay/delay_plan.h"
#include "model/app_model.h"
#include "model/row_records.h"
#include "settings/bounded_text.h"
#include "stage/room_layout.h"

namespace vt::model {

using devices::AudioDevice;

namespace {

stage::RowPlace defaultPlace(const AudioDevice& device) {
    stage::RowPlace place;
    place.stereo = stage::RoomLayout::playsStereo(device.transportLabel(), false, "", "");
    return place;
}

}  // namespace

// ---------------------------------------------------------------- adding

bool AppModel::addOutput(const std::string& uid) {
    if (regularRowCount() >= maxRegularOutputs) return false;
    auto device = std::find_if(outputDevices_.begin(), outputDevices_.end(),
                               [&](const AudioDevice& d) { return d.uid == uid; });
    if (device == outputDevices_.end()) return false;
    if (std::any_of(rows_.begin(), rows_.end(),
                    [&](const RowState& r) { return r.deviceUID == uid; }))
        return false;

    RowState row;
    row.id = newRowId();
    row.deviceUID = device->uid;
    row.deviceName = device->name;
    row.place = defaultPlace(*device);
    addNewRow(std::move(row));
    return true;
}

int AppModel::addNewRow(RowState row) {
    // What the user set for this output before comes back with it.
    if (auto key = row.memoryKey()) {
        if (auto memory = settings_.rememberedOutput(*key)) applyRemembered(row, *memory);
        row.customName = settings_.customName(*key);
    }
    stampNewRow(row);

    const bool wasMuted = row.muted;
    const int slot = insertRegularRow(std::move(row));
    if (preSolo_) {
        (*preSolo_)[rows_[slot].id] = wasMuted;
        setMutedWithoutRemembering(slot, true);
    }
    afterAdding(slot);
    return slot;
}

int AppModel::insertRegularRow(RowState row) {
    const int slot = regularRowCount();
    rows_.insert(rows_.begin() + slot, std::move(row));
    if (slot + 1 < int(rows_.size())) {
        // Guests behind it moved up by one slot.
        for (int s = slot + 1; s < int(rows_.size()); ++s) pushRow(s);
        rebindGuests();
    }
    return slot;
}

void AppModel::afterAdding(int slot) {
    storeOutputCount();
    pushRow(slot);
    seedReportedLatency(slot);
    persist(slot);
    pushDelays();
    refreshLatencyWatches();
    placeNewRows();
}

void AppModel::storeOutputCount() {
    settings_.setOutputCount(regularRowCount());
}

// ---------------------------------------------------------------- removing

void AppModel::stampNewRow(RowState& row) const {
    // A colour no row has yet, and the last place in the list.
    std::set<int> hues;
    int lastOrder = -1;
    for (const RowState& r : rows_) {
        hues.insert(r.hue);
        lastOrder = std::max(lastOrder, r.order);
    }
    row.hue = nextHue(hues);
    row.order = lastOrder + 1;
    row.bornAt = main_.now();
}

bool AppModel::canRemove(int slot) const {
    if (validSlot(slot) < 0) return false;
    return rows_[slot].isGuest() || regularRowCount() > 1;
}

void AppModel::removeOutput(int slot) {
    if (!canRemove(slot)) return;
    const RowState& row = rows_[slot];
    if (!row.isGuest()) lastRemoved_ = RemovedOutput{row.id, row.shownName(), row};
    // The host's own removal bars the phone until the server ends.
    if (row.isGuest() && guestParty_) guestParty_->remove(*row.guestID);
    removeRow(slot);
}

void AppModel::removeRow(int slot) {
    if (validSlot(slot) < 0) return;
    const RowId id = rows_[slot].id;
    if (preSolo_) {
        if (isSoloed(slot)) {
            // The soloed row goes: everyone else gets their own mute back.
            std::map<RowId, bool> before = std::move(*preSolo_);
            preSolo_.reset();
            for (int s = 0; s < int(rows_.size()); ++s) {
                if (s == slot) continue;
                auto it = before.find(rows_[s].id);
                setMutedWithoutRemembering(s, it != before.end() ? it->second : rows_[s].muted);
            }
        } else {
            preSolo_->erase(id);
        }
    }
    if (forcedMutes_) forcedMutes_->erase(id);
    if (rows_[slot].isGuest() && guestParty_) guestParty_->drop(*rows_[slot].guestID);

    rows_.erase(rows_.begin() + slot);
    normaliseOrder();
    for (int s = slot; s < int(rows_.size()); ++s) persist(s);
    for (int s = slot; s < int(rows_.size()); ++s) pushRow(s);
    // The last slot is empty now.
    engine_->setOutputDevice(int(rows_.size()), std::nullopt);
    engine_->setMuted(int(rows_.size()), false);
    engine_->setEQ(int(rows_.size()), equaliser::EQSettings::flat());
    pushDelays();
    refreshLatencyWatches();
    storeOutputCount();
    rebindGuests();
    if (castSupervisor_) castSupervisor_->removed(slot);
    // The AirPlay rows behind it moved: their senders start afresh.
    if (airplay_) airplay_->rebuild(slot);
}

bool AppModel::canUndoRemove() const {
    if (!lastRemoved_ || regularRowCount() >= maxRegularOutputs) return false;
    const RowState& gone = lastRemoved_->row;
    return std::none_of(rows_.begin(), rows_.end(), [&](const RowState& r) {
        return (gone.deviceUID && r.deviceUID == gone.deviceUID) ||
               (gone.airplayID && r.airplayID == gone.airplayID) ||
               (gone.castID && r.castID == gone.castID);
    });
}

void AppModel::undoRemove() {
    if (!canUndoRemove()) return;
    const RowState& copy = lastRemoved_->row;
    RowState row;
    row.id = copy.id;
    row.deviceUID = copy.deviceUID;
    row.deviceName = copy.deviceName;
    row.airplayID = copy.airplayID;
    row.airplayName = copy.airplayName;
    row.castID = copy.castID;
    row.castName = copy.castName;
    row.place = copy.place;
    if (auto key = row.memoryKey())
        if (auto memory = settings_.rememberedOutput(*key)) applyRemembered(row, *memory);
    row.delayMs = copy.delayMs;
    row.volume = copy.volume;
    row.eq = copy.eq;
    row.measuredLatencyMs = copy.measuredLatencyMs;
    row.latencySource = copy.latencySource;
    row.customName = copy.customName;
    row.hue = copy.hue;
    row.order = copy.order;
    row.bornAt = main_.now();

    // It goes back to the place it was shown in, ahead of the rows that
    // were behind it then.
    for (RowState& r : rows_)
        if (r.order >= row.order) ++r.order;
    const int slot = insertRegularRow(std::move(row));
    lastRemoved_.reset();
    normaliseOrder();
    if (preSolo_) {
        (*preSolo_)[rows_[slot].id] = rows_[slot].muted;
        setMutedWithoutRemembering(slot, true);
    }
    afterAdding(slot);
    engine_->setVolume(slot, rows_[slot].volume);
}

// ---------------------------------------------------------------- order, names

void AppModel::normaliseOrder() {
    std::vector<ShownRow> shown = displayRows();
    for (int i = 0; i < int(shown.size()); ++i) rows_[shown[i].slot].order = i;
}

void AppModel::moveRow(int from, int to) {
    std::vector<ShownRow> shown = displayRows();
    const int n = int(shown.size());
    if (from < 0 || from >= n || to < 0 || to >= n || from == to) return;
    std::vector<int> slots;
    for (const ShownRow& s : shown) slots.push_back(s.slot);
    const int moving = slots[from];
    slots.erase(slots.begin() + from);
    slots.insert(slots.begin() + to, moving);
    for (int i = 0; i < n; ++i) {
        if (rows_[slots[i]].order == i) continue;
        rows_[slots[i]].order = i;
        persist(slots[i]);
    }
}

void AppModel::moveRowDragging(int slot, int onto) {
    std::vector<ShownRow> shown = displayRows();
    int from = -1, to = -1;
    for (int i = 0; i < int(shown.size()); ++i) {
        if (shown[i].slot == slot) from = i;
        if (shown[i].slot == onto) to = i;
    }
    if (from >= 0 && to >= 0) moveRow(from, to);
}

void AppModel::rename(int slot, const std::optional<std::string>& name) {
    if (validSlot(slot) < 0) return;
    RowState& row = rows_[slot];
    const std::string bounded = settings::boundedText(name.value_or(std::string()));
    if (bounded.empty() || bounded == row.originalName())
        row.customName.reset();
    else
        row.customName = bounded;
    if (auto key = row.memoryKey()) settings_.setCustomName(row.customName, *key);
}

// ---------------------------------------------------------------- switches

void AppModel::toggleDisabled(int slot) {
    if (validSlot(slot) < 0) return;
    rows_[slot].disabled = !rows_[slot].disabled;
    pushRow(slot);
    pushDelays();
    persist(slot);
    if (isRunning_) {
        reconcileAirPlaySenders();
        reconcileCastSenders();
    }
}

void AppModel::applyMuted(int slot, bool muted) {
    if (validSlot(slot) < 0) return;
    setMutedWithoutRemembering(slot, muted);
    persist(slot);
}

void AppModel::setMutedWithoutRemembering(int slot, bool muted) {
    if (validSlot(slot) < 0) return;
    rows_[slot].muted = muted;
    engine_->setMuted(slot, muted || rows_[slot].disabled);
}

void AppModel::toggleMuted(int slot) {
    if (validSlot(slot) < 0) return;
    if (preSolo_) {
        // The solo keeps the live state; the change waits for its end.
        auto [it, added] = preSolo_->try_emplace(rows_[slot].id, rows_[slot].muted);
        it->second = !it->second;
        persist(slot);
        return;
    }
    applyMuted(slot, !rows_[slot].muted);
}

bool AppModel::isSoloed(int slot) const {
    if (!preSolo_ || validSlot(slot) < 0 || rows_[slot].muted) return false;
    for (int s = 0; s < int(rows_.size()); ++s)
        if (s != slot && !rows_[s].muted) return false;
    return true;
}

std::optional<int> AppModel::soloSlot() const {
    for (int s = 0; s < int(rows_.size()); ++s)
        if (isSoloed(s)) return s;
    return std::nullopt;
}

void AppModel::toggleSolo(int slot) {
    if (validSlot(slot) < 0) return;
    if (preSolo_ && isSoloed(slot)) {
        std::map<RowId, bool> before = std::move(*preSolo_);
        preSolo_.reset();
        for (int s = 0; s < int(rows_.size()); ++s) {
            auto it = before.find(rows_[s].id);
            setMutedWithoutRemembering(s, it != before.end() ? it->second : rows_[s].muted);
            persist(s);
        }
        return;
    }
    if (!preSolo_) {
        preSolo_.emplace();
        for (const RowState& r : rows_) (*preSolo_)[r.id] = r.muted;
    }
    for (int s = 0; s < int(rows_.size()); ++s) setMutedWithoutRemembering(s, s != slot);
}

void AppModel::beginForcedMutes(const void* holder) {
    if (!forcedMutes_) {
        forcedMutes_.emplace();
        for (const RowState& r : rows_) (*forcedMutes_)[r.id] = r.muted;
    }
    forcedMuteHolders_.insert(holder);
}

void AppModel::endForcedMutes(const void* holder) {
    forcedMuteHolders_.erase(holder);
    if (!forcedMuteHolders_.empty() || !forcedMutes_) return;
    std::map<RowId, bool> before = std::move(*forcedMutes_);
    forcedMutes_.reset();
    for (int s = 0; s < int(rows_.size()); ++s) {
        auto it = before.find(rows_[s].id);
        if (it != before.end()) setMutedWithoutRemembering(s, it->second);
    }
}

bool AppModel::mutedToStore(const RowState& row) const {
    if (preSolo_)
        if (auto it = preSolo_->find(row.id); it != preSolo_->end()) return it->second;
    if (forcedMutes_)
        if (auto it = forcedMutes_->find(row.id); it != forcedMutes_->end()) return it->second;
    return row.muted;
}

// ---------------------------------------------------------------- reconnecting

bool AppModel::isMissing(const RowState& row) const {
    if (row.isGuest()) return false;
    if (row.airplayID)
        return std::none_of(airplayReceivers_.begin(), airplayReceivers_.end(),
                            [&](const auto& r) { return r.id == *row.airplayID; });
    if (row.castID)
        return std::none_of(castDevices_.begin(), castDevices_.end(),
                            [&](const auto& d) { return d.id == *row.castID; });
    if (row.deviceUID) return !deviceOf(row).has_value();
    return false;
}

bool AppModel::canReconnect(int slot) const {
    if (!isRunning_ || validSlot(slot) < 0) return false;
    const RowState& row = rows_[slot];
    if (!row.airplayID && !row.castID) return false;
    if (row.castID && castSupervisor_) {
        using Kind = cast::CastStatus::Kind;
        const auto status = castSupervisor_->status(slot);
        if (castSupervisor_->held(slot) || (status && status->kind == Kind::failed)) return true;
    }
    if (row.airplayID && airplay_ && !isMissing(row)) {
        // Given up, or failed and waiting for nobody: the user may try again.
        const auto status = airplay_->status(slot);
        if (airplay_->isExhausted(slot) || !airplay_->hasSender(slot)) return true;
        if (status && status->kind != airplay::AirPlayStatus::Kind::streaming &&
            status->kind != airplay::AirPlayStatus::Kind::connecting)
            return true;
    }
    return isMissing(row) || row.heldAfterRestart;
}

void AppModel::reconnect(int slot) {
    if (!canReconnect(slot)) return;
    if (rows_[slot].castID && castSupervisor_) {
        castSupervisor_->reconnect(slot, *rows_[slot].castID);
    }
    if (rows_[slot].airplayID) {
        rows_[slot].heldAfterRestart = false;
        retryUnresolvedReceivers();
        if (airplay_) airplay_->reconnect(slot);
    }
}

std::vector<int> AppModel::heldSlots() const {
    std::vector<int> out;
    for (int s = 0; s < int(rows_.size()); ++s)
        if (rows_[s].heldAfterRestart) out.push_back(s);
    return out;
}

void AppModel::reconnectHeld(int slot) {
    if (validSlot(slot) < 0) return;
    rows_[slot].heldAfterRestart = false;
    reconcileAirPlaySenders();
    reconcileCastSenders();
}

void AppModel::reconnectAllHeld() {
    for (int slot : heldSlots()) reconnectHeld(slot);
}

// ---------------------------------------------------------------- values

void AppModel::setDelay(int slot, double ms) {
    if (validSlot(slot) < 0 || !std::isfinite(ms)) return;
    rows_[slot].delayMs =
        std::clamp(ms, delay::DelayPlan::range.lower, delay::DelayPlan::range.upper);
    pushDelays();
    persist(slot);
}

void AppModel::setVolume(int slot, double volume) {
    if (validSlot(slot) < 0 || !std::isfinite(volume)) return;
    rows_[slot].volume = std::clamp(volume, 0.0, 1.0);
    engine_->setVolume(slot, rows_[slot].volume);
    persist(slot);
}

void AppModel::clearMeasuredLatency(int slot) {
    if (validSlot(slot) < 0) return;
    rows_[slot].measuredLatencyMs = 0;
    rows_[slot].latencySource = settings::LatencySource::none;
    seedReportedLatency(slot);
    pushDelays();
    persist(slot);
}

void AppModel::setMasterVolume(double volume) {
    if (!std::isfinite(volume)) return;
    masterVolume_ = std::clamp(volume, 0.0, 1.0);
    settings_.setMasterVolume(masterVolume_);
    engine_->setMasterVolume(masterVolume_);
}

void AppModel::setPlaybackMode(delay::PlaybackMode mode) {
    playbackMode_ = mode;
    settings_.setPlaybackMode(mode);
    pushDelays();
}

void AppModel::setSyncSlowSpeakers(bool on) {
    syncSlowSpeakers_ = on;
    settings_.setSyncSlowSpeakers(on);
    pushDelays();
}

// ---------------------------------------------------------------- pushing

void AppModel::pushRow(int slot) {
    if (validSlot(slot) < 0) return;
    const RowState& row = rows_[slot];
    std::optional<std::string> uid;
    if (row.isDevice() && !row.disabled) uid = row.deviceUID;
    // Setting the same device again would close and reopen a playing stream;
    // only a closed slot needs it, which is also how a failed open retries.
    const bool inPlace = engine_->outputDeviceUID(slot) == uid &&
                         (!uid || engine_->isOpen(slot) || engine_->isOpening(slot));
    if (!inPlace) {
        try {
            engine_->setOutputDevice(slot, uid);
        } catch (const engine::EngineError&) {
            // The slot keeps the device and opens when it appears.
        }
    }
    engine_->setVolume(slot, row.volume);
    engine_->setMuted(slot, row.muted || row.disabled);
    engine_->setEQ(slot, row.eq);
}

double AppModel::plannedLatencyMs(const RowState& row) const {
    const double flight = stage::RoomLayout::flightMs(row.place, row.hasOutput(), room_);
    return row.streamLatencyMs + row.measuredLatencyMs + row.engineLateMs + flight;
}

void AppModel::pushDelays() {
    const size_t n = rows_.size();
    std::vector<double> offsets(n), latencies(n);
    std::vector<bool> counted(n);
    for (size_t i = 0; i < n; ++i) {
        const RowState& row = rows_[i];
        counted[i] = row.counted();
        latencies[i] = plannedLatencyMs(row);
        offsets[i] = row.delayMs;
    }
    delay::DelayPlan::GroupPlan plan = delay::DelayPlan::plan(
        offsets, latencies, counted, playbackMode_, syncSlowSpeakers_, lastFast_);
    lastFast_ = plan.fast;
    engineDelays_ = plan.delays;
    heardMs_ = delay::DelayPlan::heardMs(plan.delays, latencies);
    for (size_t i = 0; i < n; ++i) engine_->setDelayMs(int(i), plan.delays[i]);
    pushMix();
}

void AppModel::pushMix() {
    stage::RoomLayout::Places places;
    std::vector<bool> counted;
    for (const RowState& row : rows_) {
        places.push_back(row.place);
        counted.push_back(row.counted());
    }
    std::vector<stage::Mix2> mixes = stage::RoomLayout::mixes(places, counted, room_, rows_.size());
    for (size_t slot = 0; slot < mixes.size(); ++slot) {
        const stage::Mix2& m = mixes[slot];
        engine_->setMix(int(slot), m.ll, m.lr, m.rl, m.rr);
    }
}

void AppModel::persist(int slot) {
    if (validSlot(slot) < 0) return;
    const RowState& row = rows_[slot];
    if (row.isGuest()) return;
    const bool muted = mutedToStore(row);
    settings_.saveOutput(slot, storedFromRow(row, muted));
    if (auto key = row.memoryKey()) settings_.rememberOutput(rememberedFromRow(row, muted), *key);
}

}  // namespace vt::model
