#include "mixer/app_mixer.h"

#include <algorithm>
#include <cmath>

namespace vt::mixer {

namespace {

std::string percent(double x) {
    return std::to_string(int(x * 100.0)) + "%";
}

std::string joinedWithAnd(const std::vector<std::string>& names) {
    std::string out;
    for (size_t i = 0; i < names.size(); ++i) {
        if (i > 0) out += i + 1 == names.size() ? (names.size() > 2 ? ", and " : " and ") : ", ";
        out += names[i];
    }
    return out;
}

}  // namespace

AppMixer::AppMixer(AppStreams& streams, dispatch::MainQueue& main, settings::Settings& settings,
                   std::unique_ptr<AppIdentity> identity, int ownPid)
    : streams_(streams),
      main_(main),
      settings_(settings),
      identity_(std::move(identity)),
      catalog_(streams, ownPid),
      volumes_(streams, main, settings),
      mixer_(MixerSettings::fromJson(settings.appMixer())) {}

AppMixer::~AppMixer() {
    *alive_ = false;
    streams_.setChangeHandler(nullptr);
}

void AppMixer::start() {
    if (started_) return;
    started_ = true;
    volumes_.restorePending();
    std::weak_ptr<bool> alive = alive_;
    streams_.setChangeHandler([this, alive] {
        main_.post([this, alive] {
            if (alive.lock()) refresh();
        });
    });
    poll_ = main_.repeat(pollSeconds, [this] {
        streams_.reconnectIfLost();
        refresh();
    });
    refresh();
    pushGains();
}

void AppMixer::shutDown() {
    poll_.reset();
    streams_.setChangeHandler(nullptr);
    if (pendingSave_) flush();
    volumes_.restoreAll();
    lastGains_.clear();
}

void AppMixer::refresh() {
    if (catalog_.refresh()) {
        rememberPlayingApps();
        if (soloed_ && !isPlaying(*soloed_)) soloed_.reset();
        pushGains();
        changed();
    }
    // A stream's volume may have changed without the app list changing.
    volumes_.streamsChanged();
}

void AppMixer::pushGains() {
    GainTable table;
    for (const AppSource& s : catalog_.sources()) {
        const double gain = soloed_ && *soloed_ != s.id ? 0.0 : mixer_.played(s.id);
        if (gain == 1.0) continue;  // an app at full level is left alone
        table[s.id] = AppGain{s.indices(), gain};
    }
    if (pushedOnce_ && table == lastGains_) return;
    pushedOnce_ = true;
    lastGains_ = table;
    volumes_.apply(table);
}

bool AppMixer::isKnownApp(const std::string& id) {
    return id == MixerSource::alerts || id == MixerSource::airplay || identity_->isApp(id);
}

void AppMixer::rememberPlayingApps() {
    MixerSettings copy = mixer_;
    bool changedAny = false;
    for (const AppSource& s : catalog_.sources())
        if (s.playing() && isKnownApp(s.id))
            changedAny |= copy.remember(s.id, identity_->name(s.id, std::nullopt));
    if (changedAny) save(std::move(copy));
}

bool AppMixer::isPlaying(const std::string& id) const {
    const AppSource* s = catalog_.source(id);
    return s && s->playing();
}

std::string AppMixer::appName(const std::string& id) {
    std::optional<std::string> remembered;
    if (auto it = mixer_.apps.find(id); it != mixer_.apps.end()) remembered = it->second.name;
    if (!remembered)
        if (const AppSource* s = catalog_.source(id); s && !s->streams.empty())
            remembered = s->streams.front().name;
    return identity_->name(id, remembered);
}

std::string AppMixer::desktopEntry(const std::string& id) {
    const std::optional<DesktopEntry> e = identity_->entry(id);
    return e ? e->fileId : std::string();
}

std::vector<std::string> AppMixer::playingApps() {
    std::vector<std::string> ids;
    for (const AppSource& s : catalog_.sources())
        if (s.playing() && isKnownApp(s.id)) ids.push_back(s.id);
    std::vector<std::pair<std::string, std::string>> named;
    for (const std::string& id : ids) named.emplace_back(appName(id), id);
    std::sort(named.begin(), named.end());
    std::vector<std::string> out;
    for (auto& [name, id] : named) out.push_back(id);
    return out;
}

std::vector<std::string> AppMixer::rememberedApps() {
    std::vector<std::pair<std::string, std::string>> named;
    for (const auto& [id, level] : mixer_.apps)
        if (!isPlaying(id)) named.emplace_back(appName(id), id);
    std::sort(named.begin(), named.end());
    std::vector<std::string> out;
    for (auto& [name, id] : named) out.push_back(id);
    return out;
}

std::string AppMixer::levelDescription(const std::string& id) const {
    const std::string base = std::to_string(int(mixer_.level(id) * 100.0)) + " percent";
    if (mixer_.isMuted(id)) return base + ", muted";
    if (auto g = mixer_.mutingGroup(id)) return base + ", muted by " + g->name;
    const std::vector<MixerGroup> lowering = mixer_.loweringGroups(id);
    if (lowering.empty()) return base;
    std::vector<std::string> names;
    for (const MixerGroup& g : lowering) names.push_back(g.name);
    return base + ", plays at " + std::to_string(int(mixer_.played(id) * 100.0)) +
           " percent because of " + joinedWithAnd(names);
}

std::string AppMixer::levelArithmetic(const std::string& id) const {
    const double level = mixer_.level(id);
    if (mixer_.isMuted(id)) return "Muted, returns to " + percent(level);
    const std::vector<MixerGroup> groups = mixer_.groupsContaining(id);
    if (groups.empty()) return percent(level);
    std::string out = percent(level);
    for (const MixerGroup& g : groups)
        out += " \u00D7 \u2068" + g.name + "\u2069 " + (g.muted ? "muted" : percent(g.level));
    return out + " = " + percent(mixer_.played(id));
}

void AppMixer::edit(const std::function<void(MixerSettings&)>& change) {
    MixerSettings copy = mixer_;
    change(copy);
    if (copy != mixer_) save(std::move(copy));
}

void AppMixer::save(MixerSettings settings) {
    mixer_ = std::move(settings);
    pushGains();
    changed();
    std::weak_ptr<bool> alive = alive_;
    pendingSave_ = main_.postAfter(saveSeconds, [this, alive] {
        if (alive.lock()) flush();
    });
}

void AppMixer::flush() {
    pendingSave_.reset();
    settings_.setAppMixer(mixer_.toJson());
}

void AppMixer::setAppLevel(const std::string& id, double level) {
    edit([&](MixerSettings& m) { m.setLevel(id, level, appName(id)); });
}

void AppMixer::toggleAppMute(const std::string& id) {
    edit([&](MixerSettings& m) { m.toggleMute(id, appName(id)); });
}

void AppMixer::setAppMuted(const std::string& id, bool muted) {
    if (mixer_.isMuted(id) != muted) toggleAppMute(id);
}

void AppMixer::setSolo(const std::optional<std::string>& id) {
    if (soloed_ == id) return;
    soloed_ = id;
    pushGains();
    changed();
}

void AppMixer::rememberApp(const std::string& id) {
    edit([&](MixerSettings& m) { m.remember(id, appName(id)); });
}

void AppMixer::forgetApp(const std::string& id) {
    if (soloed_ == id) setSolo(std::nullopt);
    edit([&](MixerSettings& m) { m.forget(id); });
}

void AppMixer::setGroupLevel(const std::string& id, double level) {
    edit([&](MixerSettings& m) { m.setGroupLevel(id, level); });
}

void AppMixer::toggleGroupMute(const std::string& id) {
    edit([&](MixerSettings& m) { m.toggleGroupMute(id); });
}

std::string AppMixer::createGroup(const std::string& name, double level,
                                  const std::set<std::string>& members) {
    MixerSettings copy = mixer_;
    std::string id = copy.createGroup(name, level, members);
    save(std::move(copy));
    return id;
}

void AppMixer::renameGroup(const std::string& id, const std::string& name) {
    edit([&](MixerSettings& m) { m.renameGroup(id, name); });
}

void AppMixer::removeGroup(const std::string& id) {
    edit([&](MixerSettings& m) { m.removeGroup(id); });
}

void AppMixer::setGroupMembers(const std::string& id, const std::set<std::string>& members) {
    edit([&](MixerSettings& m) { m.setMembers(id, members); });
}

void AppMixer::resetGroup(const std::string& id) {
    edit([&](MixerSettings& m) { m.resetGroup(id); });
}

}  // namespace vt::mixer
