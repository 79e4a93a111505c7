#include "mixer/app_catalog.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <map>

#include "mixer/app_rules.h"
#include "mixer/mixer_settings.h"

namespace vt::mixer {

namespace {

std::string property(const AppStream& s, const char* key) {
    auto it = s.properties.find(key);
    return it == s.properties.end() ? std::string() : it->second;
}

int pidOf(const AppStream& s) {
    const std::string text = property(s, "application.process.id");
    int pid = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), pid);
    return ec == std::errc() && end == text.data() + text.size() && pid > 0 ? pid : 0;
}

std::string lower(std::string s) {
    for (char& c : s) c = char(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

}  // namespace

bool AppSource::playing() const {
    return std::any_of(streams.begin(), streams.end(), [](const auto& s) { return s.playing; });
}

std::vector<uint32_t> AppSource::indices() const {
    std::vector<uint32_t> out;
    for (const SourceStream& s : streams) out.push_back(s.index);
    return out;
}

AppCatalog::AppCatalog(AppStreams& streams, int ownPid) : streams_(streams), ownPid_(ownPid) {}

bool AppCatalog::refresh() {
    std::vector<AppSource> now = fold(streams_.streams(), ownPid_);
    if (now == sources_) return false;
    sources_ = std::move(now);
    return true;
}

const AppSource* AppCatalog::source(const std::string& id) const {
    for (const AppSource& s : sources_)
        if (s.id == id) return &s;
    return nullptr;
}

std::optional<std::string> AppCatalog::sourceID(const AppStream& s) {
    if (property(s, "media.role") == "event") return std::string(MixerSource::alerts);
    if (std::string id = property(s, "application.id"); !id.empty()) return id;
    if (std::string binary = lower(property(s, "application.process.binary")); !binary.empty())
        return programOfHelper(binary).value_or(binary);
    return std::nullopt;
}

std::string AppCatalog::displayName(const AppStream& s) {
    if (std::string name = property(s, "application.name"); !name.empty()) return name;
    if (std::string binary = property(s, "application.process.binary"); !binary.empty())
        return binary;
    return "PID " + std::to_string(pidOf(s));
}

std::vector<AppSource> AppCatalog::fold(const std::vector<AppStream>& streams, int ownPid) {
    std::map<std::string, AppSource> byId;
    for (const AppStream& s : streams) {
        const int pid = pidOf(s);
        if (s.ours || (pid != 0 && pid == ownPid)) continue;
        std::optional<std::string> id = sourceID(s);
        if (!id) continue;
        AppSource& source = byId[*id];
        source.id = *id;
        source.streams.push_back({s.index, pid, displayName(s), !s.corked});
    }
    std::vector<AppSource> out;
    for (auto& [id, source] : byId) {
        std::sort(source.streams.begin(), source.streams.end(),
                  [](const auto& a, const auto& b) { return a.index < b.index; });
        out.push_back(std::move(source));
    }
    return out;
}

}  // namespace vt::mixer
