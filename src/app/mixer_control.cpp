#include "app/mixer_control.h"

#include <cmath>
#include <set>

namespace vt::app {

namespace {

std::string refused(const std::string& why) {
    return nlohmann::json{{"type", "mixer.refused"}, {"why", why}}.dump();
}

// Every app the mixer knows of: playing, remembered, and any other that
// plays now (a script may set what has no desktop entry).
nlohmann::json appList(mixer::AppMixer& m) {
    std::vector<std::string> ids = m.playingApps();
    for (const std::string& id : m.rememberedApps()) ids.push_back(id);
    std::set<std::string> listed(ids.begin(), ids.end());
    for (const mixer::AppSource& s : m.sources())
        if (listed.insert(s.id).second) ids.push_back(s.id);
    nlohmann::json apps = nlohmann::json::array();
    for (const std::string& id : ids)
        apps.push_back({{"id", id},
                        {"name", m.appName(id)},
                        {"level", m.settings().level(id)},
                        {"muted", m.settings().isMuted(id)},
                        {"playing", m.isPlaying(id)}});
    return apps;
}

}  // namespace

std::string handleMixerLine(model::AppModel& model, const nlohmann::json& line) {
    mixer::AppMixer* m = model.mixer();
    if (!m) return refused("The app mixer is not running.");
    const std::string type = line.value("type", "");
    const auto id = line.find("id");
    const bool hasId = id != line.end() && id->is_string() && !id->get<std::string>().empty();
    if (type == "mixer.apps")
        return nlohmann::json{{"type", "mixer.apps"}, {"apps", appList(*m)}}.dump(
            -1, ' ', false, nlohmann::json::error_handler_t::replace);
    if (type == "mixer.level") {
        const auto level = line.find("level");
        if (!hasId || level == line.end() || !level->is_number() ||
            !std::isfinite(level->get<double>()))
            return refused("A level needs an app id and a number.");
        m->setAppLevel(*id, level->get<double>());
    } else if (type == "mixer.mute") {
        const auto on = line.find("on");
        if (!hasId || on == line.end() || !on->is_boolean())
            return refused("A mute needs an app id and on or off.");
        m->setAppMuted(*id, on->get<bool>());
    } else if (type == "mixer.solo") {
        if (hasId && !m->isPlaying(*id)) return refused("That app is not playing.");
        m->setSolo(hasId ? std::optional<std::string>(*id) : std::nullopt);
    } else {
        return refused("That is not a mixer command.");
    }
    return nlohmann::json{{"type", "mixer.done"}}.dump();
}

}  // namespace vt::app
