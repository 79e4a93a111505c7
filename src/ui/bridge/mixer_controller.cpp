#include "ui/bridge/mixer_controller.h"

#include <QUrl>
#include <QVariantList>
#include <algorithm>

#include "nowplaying/app_icon.h"
#include "ui/bridge/app_controller.h"

namespace vt::ui {

namespace {

std::string s(const QString& text) {
    return text.toStdString();
}

}  // namespace

MixerController::MixerController(AppController& app, QObject* parent) : QObject(parent), app_(app) {
    connect(&app_, &AppController::changed, this, &MixerController::sync);
    sync();
}

bool MixerController::available() const {
    return app_.model().mixer() != nullptr;
}

QString MixerController::soloedApp() const {
    const mixer::AppMixer* mixer = app_.model().mixer();
    return mixer && mixer->soloedApp() ? QString::fromStdString(*mixer->soloedApp()) : QString();
}

void MixerController::sync() {
    mixer::AppMixer* mixer = app_.model().mixer();
    if (!mixer) {
        strips_.clear();
    } else {
        strips_.sync(*mixer, folded_, [this](const std::string& id) { return iconOf(id); });
    }
    emit changed();
}

template <typename F>
void MixerController::act(F&& f) {
    if (mixer::AppMixer* mixer = app_.model().mixer()) f(*mixer);
    app_.refresh();
}

QString MixerController::iconOf(const std::string& id) {
    if (auto it = icons_.find(id); it != icons_.end()) return it->second;
    QString url;
    if (mixer::AppMixer* mixer = app_.model().mixer()) {
        const std::string entry = mixer->desktopEntry(id);
        if (!entry.empty())
            if (auto file = nowplaying::appIconFile(entry))
                url = QUrl::fromLocalFile(QString::fromStdString(*file)).toString();
    }
    return icons_[id] = url;
}

void MixerController::setAppLevel(const QString& id, double level) {
    act([&](mixer::AppMixer& m) { m.setAppLevel(s(id), std::clamp(level, 0.0, 1.0)); });
}

void MixerController::toggleAppMute(const QString& id) {
    act([&](mixer::AppMixer& m) { m.toggleAppMute(s(id)); });
}

void MixerController::toggleAppSolo(const QString& id) {
    act([&](mixer::AppMixer& m) {
        if (m.soloedApp() == s(id))
            m.setSolo(std::nullopt);
        else
            m.setSolo(s(id));
    });
}

void MixerController::forgetApp(const QString& id) {
    act([&](mixer::AppMixer& m) { m.forgetApp(s(id)); });
}

void MixerController::setGroupLevel(const QString& id, double level) {
    act([&](mixer::AppMixer& m) { m.setGroupLevel(s(id), std::clamp(level, 0.0, 1.0)); });
}

void MixerController::toggleGroupMute(const QString& id) {
    act([&](mixer::AppMixer& m) { m.toggleGroupMute(s(id)); });
}

void MixerController::toggleGroupFolded(const QString& id) {
    if (!folded_.erase(s(id))) folded_.insert(s(id));
    app_.refresh();
}

QVariantMap MixerController::groupForEditing(const QString& id) {
    QVariantMap out;
    mixer::AppMixer* mixer = app_.model().mixer();
    if (!mixer) return out;
    const mixer::MixerGroup* group = id.isEmpty() ? nullptr : mixer->settings().group(s(id));
    if (!id.isEmpty() && !group) return out;
    const std::set<std::string> members =
        group ? mixer->settings().members(*group) : std::set<std::string>();
    std::vector<std::string> apps = mixer->playingApps();
    for (std::string& a : mixer->rememberedApps()) apps.push_back(std::move(a));
    QVariantList list;
    for (const std::string& app : apps)
        list.push_back(QVariantMap{{"id", QString::fromStdString(app)},
                                   {"name", QString::fromStdString(mixer->appName(app))},
                                   {"member", members.contains(app)}});
    out["id"] = id;
    out["name"] = group ? QString::fromStdString(group->name) : QString();
    out["custom"] = !group || group->isCustom();
    out["rule"] = group && group->automatic
                      ? QString::fromStdString(mixer::ruleText(*group->automatic))
                      : QString();
    out["corrections"] = group && mixer->settings().hasCorrections(group->id);
    out["apps"] = list;
    return out;
}

QString MixerController::saveGroup(const QString& id, const QString& name,
                                   const QStringList& members) {
    std::string saved = s(id);
    act([&](mixer::AppMixer& m) {
        std::set<std::string> chosen;
        for (const QString& member : members) chosen.insert(s(member));
        if (saved.empty()) {
            saved = m.createGroup(s(name), 1.0, chosen);
            return;
        }
        const mixer::MixerGroup* group = m.settings().group(saved);
        if (!group) return;
        // The editor lists only the apps seen here; members it did not list
        // (a rule's apps never played on this computer) stay as they are.
        std::set<std::string> listed;
        for (std::string& app : m.playingApps()) listed.insert(std::move(app));
        for (std::string& app : m.rememberedApps()) listed.insert(std::move(app));
        for (const std::string& member : m.settings().members(*group))
            if (!listed.contains(member)) chosen.insert(member);
        m.renameGroup(saved, s(name));
        m.setGroupMembers(saved, chosen);
    });
    return QString::fromStdString(saved);
}

void MixerController::removeGroup(const QString& id) {
    folded_.erase(s(id));
    act([&](mixer::AppMixer& m) { m.removeGroup(s(id)); });
}

void MixerController::resetGroup(const QString& id) {
    act([&](mixer::AppMixer& m) { m.resetGroup(s(id)); });
}

}  // namespace vt::ui
