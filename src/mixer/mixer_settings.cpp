#include "mixer/mixer_settings.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <random>

#include "mixer/app_rules.h"

namespace vt::mixer {

namespace {

double clampLevel(double v) {
    return std::clamp(v, 0.0, 1.0);
}

// A group's id is never shown and only has to be unique among the groups.
std::string newGroupId() {
    std::random_device rd;
    std::array<unsigned, 4> w{rd(), rd(), rd(), rd()};
    char text[40];
    std::snprintf(text, sizeof text, "%08X-%04X-4%03X-%04X-%04X%08X", w[0], w[1] >> 16,
                  w[1] & 0xFFFu, 0x8000u | (w[2] & 0x3FFFu), w[2] >> 16, w[3]);
    return text;
}

std::string trimmed(const std::string& s) {
    const char* space = " \t\n\r\v\f";
    const size_t first = s.find_first_not_of(space);
    if (first == std::string::npos) return {};
    return s.substr(first, s.find_last_not_of(space) - first + 1);
}

std::set<std::string> stringSet(const nlohmann::json& j) {
    std::set<std::string> out;
    if (!j.is_array()) return out;
    for (const auto& e : j)
        if (e.is_string()) out.insert(e.get<std::string>());
    return out;
}

double levelOf(const nlohmann::json& j, const char* key) {
    auto it = j.find(key);
    if (it == j.end() || !it->is_number()) return 1.0;
    const double v = it->get<double>();
    return std::isnan(v) ? 1.0 : clampLevel(v);
}

bool boolOf(const nlohmann::json& j, const char* key) {
    auto it = j.find(key);
    return it != j.end() && it->is_boolean() && it->get<bool>();
}

std::optional<AutomaticGroup> automaticOf(const std::string& raw) {
    for (AutomaticGroup k : kAutomaticGroups)
        if (raw == rawValue(k)) return k;
    return std::nullopt;
}

std::optional<MixerGroup> groupFromJson(const nlohmann::json& j) {
    if (!j.is_object()) return std::nullopt;
    auto id = j.find("id");
    if (id == j.end() || !id->is_string() || id->get<std::string>().empty())
        return std::nullopt;  // a group needs an id
    MixerGroup g;
    g.id = id->get<std::string>();
    if (auto n = j.find("name"); n != j.end() && n->is_string()) g.name = n->get<std::string>();
    if (auto k = j.find("kind"); k != j.end() && k->is_string())
        g.automatic = automaticOf(k->get<std::string>());
    g.level = levelOf(j, "level");
    g.muted = boolOf(j, "muted");
    if (auto a = j.find("added"); a != j.end()) g.added = stringSet(*a);
    if (auto r = j.find("removed"); r != j.end()) g.removed = stringSet(*r);
    g.hue = g.automatic ? groupHue(*g.automatic) : 0;
    if (auto h = j.find("hue"); h != j.end() && h->is_number_integer())
        g.hue = std::clamp(h->get<int>(), 0, MixerSettings::hueCount - 1);
    return g;
}

MixerGroup freshGroup(AutomaticGroup kind) {
    MixerGroup g;
    g.id = rawValue(kind);
    g.name = groupName(kind);
    g.automatic = kind;
    g.hue = groupHue(kind);
    return g;
}

}  // namespace

const char* rawValue(AutomaticGroup kind) {
    switch (kind) {
        case AutomaticGroup::notifications:
            return "notifications";
        case AutomaticGroup::music:
            return "music";
        case AutomaticGroup::calls:
            return "calls";
    }
    return "";
}

std::string groupName(AutomaticGroup kind) {
    switch (kind) {
        case AutomaticGroup::notifications:
            return "Notifications";
        case AutomaticGroup::music:
            return "Music";
        case AutomaticGroup::calls:
            return "Voice";
    }
    return {};
}

int groupHue(AutomaticGroup kind) {
    switch (kind) {
        case AutomaticGroup::notifications:
            return 1;
        case AutomaticGroup::music:
            return 4;
        case AutomaticGroup::calls:
            return 2;
    }
    return 0;
}

std::string ruleText(AutomaticGroup kind) {
    switch (kind) {
        case AutomaticGroup::notifications:
            return "Apps that play alerts, plus the desktop's alert sounds";
        case AutomaticGroup::music:
            return "Apps that play music and podcasts";
        case AutomaticGroup::calls:
            return "Calls, meetings and voice chat";
    }
    return {};
}

const std::set<std::string>& ruleMembers(AutomaticGroup kind) {
    auto withoutBrowsers = [](const std::set<std::string>& table) {
        std::set<std::string> out;
        for (const std::string& id : table)
            if (!Browsers::contains(id)) out.insert(id);
        return out;
    };
    static const std::set<std::string> notifications = rules::notifications();
    static const std::set<std::string> music = withoutBrowsers(rules::music());
    static const std::set<std::string> calls = withoutBrowsers(rules::calls());
    switch (kind) {
        case AutomaticGroup::notifications:
            return notifications;
        case AutomaticGroup::music:
            return music;
        case AutomaticGroup::calls:
            return calls;
    }
    return notifications;
}

MixerSettings::MixerSettings() {
    seedAutomaticGroups();
}

MixerSettings MixerSettings::fromJson(const nlohmann::json& j) {
    MixerSettings s;
    s.groups.clear();
    if (!j.is_object()) {
        s.seedAutomaticGroups();
        return s;
    }
    if (auto apps = j.find("apps"); apps != j.end() && apps->is_object()) {
        for (const auto& [id, e] : apps->items()) {
            if (!e.is_object() || id.empty()) continue;
            AppLevel a;
            a.level = levelOf(e, "level");
            a.muted = boolOf(e, "muted");
            if (auto n = e.find("name"); n != e.end() && n->is_string())
                a.name = n->get<std::string>();
            s.apps[id] = a;
        }
    }
    if (auto groups = j.find("groups"); groups != j.end() && groups->is_array())
        for (const auto& e : *groups)
            if (auto g = groupFromJson(e)) s.groups.push_back(*g);
    s.seedAutomaticGroups();
    return s;
}

nlohmann::json MixerSettings::toJson() const {
    nlohmann::json apps = nlohmann::json::object();
    for (const auto& [id, a] : this->apps) {
        nlohmann::json e = nlohmann::json::object();
        e["level"] = a.level;
        e["muted"] = a.muted;
        if (a.name) e["name"] = *a.name;
        apps[id] = e;
    }
    nlohmann::json groupList = nlohmann::json::array();
    for (const MixerGroup& g : groups) {
        nlohmann::json e = nlohmann::json::object();
        e["id"] = g.id;
        e["name"] = g.name;
        e["kind"] = g.automatic ? rawValue(*g.automatic) : "custom";
        e["level"] = g.level;
        e["muted"] = g.muted;
        e["added"] = std::vector<std::string>(g.added.begin(), g.added.end());
        e["removed"] = std::vector<std::string>(g.removed.begin(), g.removed.end());
        e["hue"] = g.hue;
        groupList.push_back(e);
    }
    return {{"apps", apps}, {"groups", groupList}};
}

double MixerSettings::level(const std::string& id) const {
    auto it = apps.find(id);
    return it == apps.end() ? 1.0 : it->second.level;
}

bool MixerSettings::isMuted(const std::string& id) const {
    auto it = apps.find(id);
    return it != apps.end() && it->second.muted;
}

std::set<std::string> MixerSettings::members(const MixerGroup& group) const {
    if (!group.automatic) return group.added;
    std::set<std::string> out = ruleMembers(*group.automatic);
    out.insert(group.added.begin(), group.added.end());
    for (const std::string& r : group.removed) out.erase(r);
    return out;
}

std::vector<MixerGroup> MixerSettings::groupsContaining(const std::string& id) const {
    std::vector<MixerGroup> out;
    for (const MixerGroup& g : groups)
        if (members(g).contains(id)) out.push_back(g);
    return out;
}

const MixerGroup* MixerSettings::group(const std::string& id) const {
    for (const MixerGroup& g : groups)
        if (g.id == id) return &g;
    return nullptr;
}

MixerGroup* MixerSettings::findGroup(const std::string& id) {
    for (MixerGroup& g : groups)
        if (g.id == id) return &g;
    return nullptr;
}

double MixerSettings::played(const std::string& id) const {
    double gain = 1.0;
    if (auto it = apps.find(id); it != apps.end()) {
        if (it->second.muted) return 0.0;
        gain = it->second.level;
    }
    for (const MixerGroup& g : groups) {
        if (!members(g).contains(id)) continue;
        if (g.muted) return 0.0;
        gain *= g.level;
    }
    return gain;
}

std::optional<MixerGroup> MixerSettings::mutingGroup(const std::string& id) const {
    for (const MixerGroup& g : groupsContaining(id))
        if (g.muted) return g;
    return std::nullopt;
}

std::vector<MixerGroup> MixerSettings::loweringGroups(const std::string& id) const {
    std::vector<MixerGroup> out;
    for (const MixerGroup& g : groupsContaining(id))
        if (!g.muted && g.level < 1.0) out.push_back(g);
    return out;
}

void MixerSettings::setLevel(const std::string& id, double level,
                             const std::optional<std::string>& name) {
    AppLevel& a = apps[id];
    a.level = clampLevel(level);
    a.muted = false;
    if (name) a.name = name;
}

void MixerSettings::toggleMute(const std::string& id, const std::optional<std::string>& name) {
    auto [it, fresh] = apps.try_emplace(id);
    it->second.muted = fresh ? true : !it->second.muted;
    if (name) it->second.name = name;
}

bool MixerSettings::remember(const std::string& id, const std::string& name) {
    auto it = apps.find(id);
    if (it == apps.end()) {
        apps[id] = AppLevel{1.0, false, name};
        return true;
    }
    if (it->second.name == name) return false;
    it->second.name = name;
    return true;
}

void MixerSettings::forget(const std::string& id) {
    apps.erase(id);
}

void MixerSettings::setGroupLevel(const std::string& id, double level) {
    if (MixerGroup* g = findGroup(id)) {
        g->level = clampLevel(level);
        g->muted = false;
    }
}

void MixerSettings::toggleGroupMute(const std::string& id) {
    if (MixerGroup* g = findGroup(id)) g->muted = !g->muted;
}

std::string MixerSettings::createGroup(const std::string& name, double level,
                                       const std::set<std::string>& members) {
    // The least used colour, so neighbouring groups tell apart.
    std::array<int, hueCount> uses{};
    for (const MixerGroup& g : groups)
        if (g.hue >= 0 && g.hue < hueCount) ++uses[size_t(g.hue)];
    constexpr std::array<int, hueCount> preference = {0, 3, 2, 4, 1};
    int hue = preference[0];
    for (int h : preference)
        if (uses[size_t(h)] < uses[size_t(hue)]) hue = h;
    MixerGroup g;
    g.id = newGroupId();
    g.name = trimmed(name);
    g.level = clampLevel(level);
    g.added = members;
    g.hue = hue;
    groups.push_back(g);
    return g.id;
}

void MixerSettings::renameGroup(const std::string& id, const std::string& name) {
    const std::string t = trimmed(name);
    MixerGroup* g = findGroup(id);
    if (g && g->isCustom() && !t.empty()) g->name = t;
}

void MixerSettings::removeGroup(const std::string& id) {
    std::erase_if(groups, [&](const MixerGroup& g) { return g.id == id && g.isCustom(); });
}

void MixerSettings::setMember(const std::string& app, const std::string& group, bool included) {
    MixerGroup* g = findGroup(group);
    if (!g) return;
    if (g->isCustom()) {
        if (included)
            g->added.insert(app);
        else
            g->added.erase(app);
        return;
    }
    const bool byRule = ruleMembers(*g->automatic).contains(app);
    if (included) {
        g->removed.erase(app);
        if (!byRule) g->added.insert(app);
    } else {
        g->added.erase(app);
        if (byRule) g->removed.insert(app);
    }
}

void MixerSettings::setMembers(const std::string& group, const std::set<std::string>& wanted) {
    const MixerGroup* g = this->group(group);
    if (!g) return;
    const std::set<std::string> now = members(*g);
    for (const std::string& id : wanted)
        if (!now.contains(id)) setMember(id, group, true);
    for (const std::string& id : now)
        if (!wanted.contains(id)) setMember(id, group, false);
}

void MixerSettings::resetGroup(const std::string& id) {
    MixerGroup* g = findGroup(id);
    if (g && !g->isCustom()) {
        g->added.clear();
        g->removed.clear();
    }
}

bool MixerSettings::hasCorrections(const std::string& id) const {
    const MixerGroup* g = group(id);
    return g && !g->isCustom() && (!g->added.empty() || !g->removed.empty());
}

void MixerSettings::seedAutomaticGroups() {
    std::vector<MixerGroup> unique;
    std::set<std::string> seen;
    for (const MixerGroup& g : groups)
        if (seen.insert(g.id).second) unique.push_back(g);

    std::vector<MixerGroup> out;
    for (AutomaticGroup kind : kAutomaticGroups) {
        auto it = std::find_if(unique.begin(), unique.end(),
                               [&](const MixerGroup& g) { return g.automatic == kind; });
        if (it == unique.end()) {
            out.push_back(freshGroup(kind));
            continue;
        }
        MixerGroup g = *it;
        g.id = rawValue(kind);
        g.name = groupName(kind);
        out.push_back(g);
    }
    for (const MixerGroup& g : unique)
        if (g.isCustom() && !automaticOf(g.id)) out.push_back(g);
    groups = std::move(out);
}

}  // namespace vt::mixer
