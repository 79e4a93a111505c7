// The window's handle on the app mixer (`App.mixer` in QML): the strips to
// draw, and the calls a strip, a group header and the group editor make.
// Every call goes through AppModel's mixer, then tells the interface that
// something changed, as the AppController's own calls do. Which groups are
// folded is the window's own state and is not kept.
#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <map>
#include <set>
#include <string>

#include "ui/bridge/app_strip_list_model.h"

namespace vt::ui {

class AppController;

class MixerController : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool available READ available NOTIFY changed)
    Q_PROPERTY(vt::ui::AppStripListModel* strips READ strips CONSTANT)
    // The app playing solo, or empty.
    Q_PROPERTY(QString soloedApp READ soloedApp NOTIFY changed)

  public:
    explicit MixerController(AppController& app, QObject* parent = nullptr);

    bool available() const;
    AppStripListModel* strips() { return &strips_; }
    QString soloedApp() const;
    // Follows the model: called on every change the interface hears of.
    void sync();

    Q_INVOKABLE void setAppLevel(const QString& id, double level);
    Q_INVOKABLE void toggleAppMute(const QString& id);
    // Solo this app, or end its solo.
    Q_INVOKABLE void toggleAppSolo(const QString& id);
    Q_INVOKABLE void forgetApp(const QString& id);
    Q_INVOKABLE void setGroupLevel(const QString& id, double level);
    Q_INVOKABLE void toggleGroupMute(const QString& id);
    Q_INVOKABLE void toggleGroupFolded(const QString& id);
    // What the group editor starts from: {id, name, custom, rule,
    // corrections, apps: [{id, name, member}]}; an empty id is a new group.
    Q_INVOKABLE QVariantMap groupForEditing(const QString& id);
    // Creates the group when id is empty; returns its id.
    Q_INVOKABLE QString saveGroup(const QString& id, const QString& name,
                                  const QStringList& members);
    Q_INVOKABLE void removeGroup(const QString& id);
    Q_INVOKABLE void resetGroup(const QString& id);

  signals:
    void changed();

  private:
    template <typename F>
    void act(F&& f);
    QString iconOf(const std::string& id);

    AppController& app_;
    AppStripListModel strips_;
    std::set<std::string> folded_;
    std::map<std::string, QString> icons_;
};

}  // namespace vt::ui
