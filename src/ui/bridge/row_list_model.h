// The output rows as the window lists them, in display order: one entry per
// shown row with what a strip draws. sync() rebuilds the entries from the
// model; when the same rows stay in the same order only the changed values
// are announced, so that a strip under the pointer or the keyboard keeps its
// place and focus while the levels move.
#pragma once

#include <QString>
#include <map>
#include <vector>

#include "model/app_model.h"
#include "ui/bridge/entry_list_model.h"

namespace vt::ui {

class RowListModel : public EntryListModel {
    Q_OBJECT

  public:
    enum Role {
        SlotRole = Qt::UserRole + 1,
        NameRole,
        OriginalNameRole,
        SubtitleRole,
        VolumeRole,
        MutedRole,
        SoloedRole,
        DisabledRole,
        DelayRole,
        LevelRole,
        ConnectedRole,
        HueRole,
        GuestRole,
        CanReconnectRole,
        CanEnterPasswordRole,
        CanPairRole,
        EqOnRole,
        CanCalibrateRole,
        MeasureHintRole,
    };

    struct Entry {
        model::RowId id = 0;
        int slot = 0;
        QString name, originalName, subtitle;
        double volume = 1, delayMs = 0, level = 0;
        bool muted = false, soloed = false, disabled = false, connected = false;
        int hue = 0;
        bool guest = false, canReconnect = false, canEnterPassword = false, canPair = false,
             eqOn = false;
        bool canCalibrate = false;
        bool measureHint = false;
        bool operator==(const Entry&) const = default;
    };

    explicit RowListModel(QObject* parent = nullptr) : EntryListModel(parent) {}

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    const std::vector<Entry>& entries() const { return entries_; }
    // `levels` maps slots to a meter reading from 0 to 1.
    void sync(model::AppModel& model, const std::map<int, double>& levels);
    void setEntries(std::vector<Entry> entries);

  private:
    std::vector<Entry> entries_;
};

}  // namespace vt::ui
