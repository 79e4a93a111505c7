#include "ui/bridge/app_strip_list_model.h"

#include <algorithm>
#include <map>

namespace vt::ui {

namespace {

QString q(const std::string& s) {
    return QString::fromStdString(s);
}

}  // namespace

int AppStripListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : int(entries_.size());
}

QVariant AppStripListModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() < 0 || index.row() >= int(entries_.size())) return {};
    const Entry& e = entries_[size_t(index.row())];
    switch (role) {
        case KindRole:
            return e.kind;
        case KeyRole:
            return e.key;
        case IdRole:
            return e.id;
        case NameRole:
            return e.name;
        case IconRole:
            return e.icon;
        case LevelRole:
            return e.level;
        case MutedRole:
            return e.muted;
        case SoloedRole:
            return e.soloed;
        case PlayingRole:
            return e.playing;
        case ArithmeticRole:
            return e.arithmetic;
        case DescriptionRole:
            return e.description;
        case HueRole:
            return e.hue;
        case FoldedRole:
            return e.folded;
        case CustomRole:
            return e.custom;
        case DetailRole:
            return e.detail;
        default:
            return {};
    }
}

QHash<int, QByteArray> AppStripListModel::roleNames() const {
    return {{KindRole, "kind"},
            {KeyRole, "key"},
            {IdRole, "itemId"},
            {NameRole, "name"},
            {IconRole, "icon"},
            {LevelRole, "level"},
            {MutedRole, "muted"},
            {SoloedRole, "soloed"},
            {PlayingRole, "playing"},
            {ArithmeticRole, "arithmetic"},
            {DescriptionRole, "description"},
            {HueRole, "hue"},
            {FoldedRole, "folded"},
            {CustomRole, "custom"},
            {DetailRole, "detail"}};
}

void AppStripListModel::sync(mixer::AppMixer& mixer, const std::set<std::string>& folded,
                             const IconLookup& icon) {
    const mixer::MixerSettings& settings = mixer.settings();
    std::vector<std::string> shown = mixer.playingApps();
    for (std::string& id : mixer.rememberedApps()) shown.push_back(std::move(id));

    // Each app under the first group that holds it.
    std::map<std::string, std::vector<std::string>> byGroup;
    std::vector<std::string> loose;
    for (const std::string& id : shown) {
        const std::vector<mixer::MixerGroup> groups = settings.groupsContaining(id);
        (groups.empty() ? loose : byGroup[groups.front().id]).push_back(id);
    }

    auto appEntry = [&](const std::string& id, int hue) {
        Entry e;
        e.kind = "app";
        e.key = q("app:" + id);
        e.id = q(id);
        e.name = q(mixer.appName(id));
        e.icon = icon ? icon(id) : QString();
        e.level = settings.level(id);
        e.muted = settings.isMuted(id);
        e.soloed = mixer.soloedApp() == id;
        e.playing = mixer.isPlaying(id);
        e.arithmetic = q(mixer.levelArithmetic(id));
        e.description = q(mixer.levelDescription(id));
        e.hue = hue;
        return e;
    };

    std::vector<Entry> next;
    for (const mixer::MixerGroup& g : settings.groups) {
        auto members = byGroup.find(g.id);
        // An automatic group shows once it has an app; one of the user's
        // own shows from the start, so it can be filled.
        if (members == byGroup.end() && !g.isCustom()) continue;
        Entry h;
        h.kind = "group";
        h.key = q("group:" + g.id);
        h.id = q(g.id);
        h.name = q(g.name);
        h.level = g.level;
        h.muted = g.muted;
        h.hue = g.hue;
        h.custom = g.isCustom();
        h.folded = folded.contains(g.id);
        h.detail = g.automatic ? q(mixer::ruleText(*g.automatic)) : QString();
        next.push_back(std::move(h));
        if (members == byGroup.end() || folded.contains(g.id)) continue;
        for (const std::string& id : members->second) next.push_back(appEntry(id, g.hue));
    }
    for (const std::string& id : loose) next.push_back(appEntry(id, -1));
    setEntries(std::move(next));
}

void AppStripListModel::clear() {
    setEntries({});
}

void AppStripListModel::setEntries(std::vector<Entry> next) {
    replaceEntries(entries_, std::move(next),
                   [](const Entry& a, const Entry& b) { return a.key == b.key; });
}

}  // namespace vt::ui
