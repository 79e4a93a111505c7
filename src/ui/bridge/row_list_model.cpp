#include "ui/bridge/row_list_model.h"

#include <algorithm>

namespace vt::ui {

int RowListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : int(entries_.size());
}

QVariant RowListModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() < 0 || index.row() >= int(entries_.size())) return {};
    const Entry& e = entries_[size_t(index.row())];
    switch (role) {
        case SlotRole:
            return e.slot;
        case NameRole:
            return e.name;
        case OriginalNameRole:
            return e.originalName;
        case SubtitleRole:
            return e.subtitle;
        case VolumeRole:
            return e.volume;
        case MutedRole:
            return e.muted;
        case SoloedRole:
            return e.soloed;
        case DisabledRole:
            return e.disabled;
        case DelayRole:
            return e.delayMs;
        case LevelRole:
            return e.level;
        case ConnectedRole:
            return e.connected;
        case HueRole:
            return e.hue;
        case GuestRole:
            return e.guest;
        case CanReconnectRole:
            return e.canReconnect;
        case CanEnterPasswordRole:
            return e.canEnterPassword;
        case CanPairRole:
            return e.canPair;
        case EqOnRole:
            return e.eqOn;
        case CanCalibrateRole:
            return e.canCalibrate;
        case MeasureHintRole:
            return e.measureHint;
        default:
            return {};
    }
}

QHash<int, QByteArray> RowListModel::roleNames() const {
    return {{SlotRole, "slot"},
            {NameRole, "name"},
            {OriginalNameRole, "originalName"},
            {SubtitleRole, "subtitle"},
            {VolumeRole, "volume"},
            {MutedRole, "muted"},
            {SoloedRole, "soloed"},
            {DisabledRole, "disabled"},
            {DelayRole, "delayMs"},
            {LevelRole, "level"},
            {ConnectedRole, "connected"},
            {HueRole, "hue"},
            {GuestRole, "guest"},
            {CanReconnectRole, "canReconnect"},
            {CanEnterPasswordRole, "canEnterPassword"},
            {CanPairRole, "canPair"},
            {EqOnRole, "eqOn"},
            {CanCalibrateRole, "canCalibrate"},
            {MeasureHintRole, "measureHint"}};
}

void RowListModel::sync(model::AppModel& model, const std::map<int, double>& levels) {
    std::vector<Entry> next;
    for (const model::ShownRow& shown : model.displayRows()) {
        const model::RowState& row = shown.row;
        Entry e;
        e.id = row.id;
        e.slot = shown.slot;
        e.name = QString::fromStdString(row.shownName());
        e.originalName = QString::fromStdString(row.originalName());
        e.subtitle = QString::fromStdString(model.meta(row));
        e.volume = row.volume;
        e.delayMs = row.delayMs;
        if (auto it = levels.find(shown.slot); it != levels.end()) e.level = it->second;
        e.muted = row.muted;
        e.soloed = model.isSoloed(shown.slot);
        e.disabled = row.disabled;
        e.connected = row.connected;
        e.hue = row.hue;
        e.guest = row.isGuest();
        e.canReconnect = model.canReconnect(shown.slot);
        e.canEnterPassword = model.canEnterPassword(shown.slot);
        e.canPair = model.canPair(shown.slot);
        e.eqOn = row.eq.enabled && !row.eq.isFlat();
        e.canCalibrate = model.canCalibrate(shown.slot);
        // Offered once the row has played a while, so it is not the first
        // thing a new speaker shows.
        e.measureHint = row.measureHintDue && model.showsMeasureHint(shown.slot);
        next.push_back(std::move(e));
    }
    setEntries(std::move(next));
}

void RowListModel::setEntries(std::vector<Entry> next) {
    replaceEntries(entries_, std::move(next),
                   [](const Entry& a, const Entry& b) { return a.id == b.id; });
}

}  // namespace vt::ui
