// The mixer as the window lists it, in display order: a header per group that
// holds a shown app, the strips of its apps under it (unless folded), then the
// apps in no group. An app in several groups is drawn under the first; its
// words name every group that lowers it. Playing apps come before the
// remembered ones that are silent now. As with the output rows, only changed
// values are announced while the same entries stay, so a dragged slider keeps
// its strip.
#pragma once

#include <QString>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "mixer/app_mixer.h"
#include "ui/bridge/entry_list_model.h"

namespace vt::ui {

class AppStripListModel : public EntryListModel {
    Q_OBJECT

  public:
    enum Role {
        KindRole = Qt::UserRole + 1,
        KeyRole,
        IdRole,
        NameRole,
        IconRole,
        LevelRole,
        MutedRole,
        SoloedRole,
        PlayingRole,
        ArithmeticRole,
        DescriptionRole,
        HueRole,
        FoldedRole,
        CustomRole,
        DetailRole,
    };

    struct Entry {
        QString kind;  // "group" or "app"
        QString key;   // unique in the list: the group's or app's id, prefixed
        QString id;
        QString name, icon, arithmetic, description, detail;
        double level = 1;
        bool muted = false, soloed = false, playing = false, folded = false, custom = false;
        int hue = -1;  // the group's colour; -1 for an app in no group
        bool operator==(const Entry&) const = default;
    };

    // The icon of an app as a file URL, or empty; asked once per app.
    using IconLookup = std::function<QString(const std::string& id)>;

    explicit AppStripListModel(QObject* parent = nullptr) : EntryListModel(parent) {}

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    const std::vector<Entry>& entries() const { return entries_; }
    void sync(mixer::AppMixer& mixer, const std::set<std::string>& folded, const IconLookup& icon);
    void clear();

  private:
    void setEntries(std::vector<Entry> next);

    std::vector<Entry> entries_;
};

}  // namespace vt::ui
