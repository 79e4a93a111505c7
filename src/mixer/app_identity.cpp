#include "mixer/app_identity.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

#include "mixer/app_rules.h"
#include "mixer/mixer_settings.h"

namespace vt::mixer {

namespace {

constexpr size_t kMaxEntryBytes = 64 * 1024;
constexpr size_t kMaxEntries = 4096;

std::string lower(std::string s) {
    for (char& c : s) c = char(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::vector<std::filesystem::path> foldersFromEnvironment() {
    std::vector<std::filesystem::path> out;
    if (const char* home = std::getenv("XDG_DATA_HOME"); home && *home)
        out.emplace_back(std::filesystem::path(home) / "applications");
    else if (const char* h = std::getenv("HOME"); h && *h)
        out.emplace_back(std::filesystem::path(h) / ".local/share/applications");
    const char* dirs = std::getenv("XDG_DATA_DIRS");
    std::stringstream list(dirs && *dirs ? dirs : "/usr/local/share:/usr/share");
    for (std::string dir; std::getline(list, dir, ':');)
        if (!dir.empty()) out.emplace_back(std::filesystem::path(dir) / "applications");
    return out;
}

// The program an Exec line starts: its first word's file name, past "env"
// and its assignments.
std::string execBinary(const std::string& exec) {
    std::istringstream words(exec);
    for (std::string w; words >> w;) {
        if (w == "env" || w.find('=') != std::string::npos) continue;
        if (!w.empty() && w.front() == '"') w.erase(0, 1);
        if (!w.empty() && w.back() == '"') w.pop_back();
        return std::filesystem::path(w).filename().string();
    }
    return {};
}

}  // namespace

AppIdentity::AppIdentity() : folders_(foldersFromEnvironment()) {}

AppIdentity::AppIdentity(std::vector<std::filesystem::path> folders)
    : folders_(std::move(folders)) {}

std::optional<DesktopEntry> AppIdentity::parse(const std::string& fileId, const std::string& text,
                                               std::vector<std::string>* keys) {
    std::istringstream in(text.substr(0, kMaxEntryBytes));
    bool inMain = false;
    DesktopEntry e{fileId, {}, {}};
    std::string type, exec, wmClass;
    bool hidden = false;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        if (line[0] == '[') {
            inMain = line == "[Desktop Entry]";
            continue;
        }
        if (!inMain) continue;
        const size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string key = line.substr(0, eq);
        while (!key.empty() && key.back() == ' ') key.pop_back();
        std::string value = line.substr(eq + 1);
        while (!value.empty() && value.front() == ' ') value.erase(0, 1);
        if (key == "Name") e.name = value;
        if (key == "Icon") e.icon = value;
        if (key == "Type") type = value;
        if (key == "Exec") exec = value;
        if (key == "StartupWMClass") wmClass = value;
        if ((key == "Hidden" || key == "NoDisplay") && value == "true") hidden = true;
    }
    if (type != "Application" || e.name.empty() || hidden) return std::nullopt;
    if (keys) {
        keys->push_back(lower(fileId));
        if (std::string b = lower(execBinary(exec)); !b.empty())
            keys->push_back(programOfHelper(b).value_or(b));
        if (!wmClass.empty()) keys->push_back(lower(wmClass));
    }
    return e;
}

void AppIdentity::load() {
    if (loaded_) return;
    loaded_ = true;
    std::set<std::string> seenIds;
    for (const auto& folder : folders_) {
        std::error_code ec;
        std::vector<std::filesystem::path> files;
        for (auto it = std::filesystem::directory_iterator(folder, ec);
             !ec && it != std::filesystem::directory_iterator() && files.size() < kMaxEntries;
             it.increment(ec))
            if (it->path().extension() == ".desktop") files.push_back(it->path());
        std::sort(files.begin(), files.end());
        for (const auto& file : files) {
            const std::string fileId = file.stem().string();
            // An earlier folder's entry of the same id wins, even a hidden one.
            if (!seenIds.insert(fileId).second) continue;
            std::ifstream in(file, std::ios::binary);
            std::string text(kMaxEntryBytes, '\0');
            in.read(text.data(), std::streamsize(text.size()));
            text.resize(size_t(in.gcount()));
            std::vector<std::string> keys;
            std::optional<DesktopEntry> e = parse(fileId, text, &keys);
            if (!e) continue;
            entries_.push_back(*e);
            for (const std::string& k : keys) byKey_.try_emplace(k, *e);
        }
    }
}

std::optional<DesktopEntry> AppIdentity::entry(const std::string& id) {
    load();
    auto it = byKey_.find(lower(id));
    if (it == byKey_.end()) return std::nullopt;
    return it->second;
}

std::string AppIdentity::name(const std::string& id, const std::optional<std::string>& remembered) {
    if (id == MixerSource::alerts) return "Alert sounds";
    if (id == MixerSource::airplay) return "AirPlay to this computer";
    if (auto e = entry(id)) return e->name;
    return remembered.value_or(id);
}

std::string AppIdentity::icon(const std::string& id) {
    if (id == MixerSource::alerts) return "dialog-information";
    auto e = entry(id);
    return e ? e->icon : std::string();
}

std::vector<std::string> AppIdentity::loadInstalled() {
    load();
    std::vector<DesktopEntry> sorted = entries_;
    std::sort(sorted.begin(), sorted.end(),
              [](const auto& a, const auto& b) { return lower(a.name) < lower(b.name); });
    std::vector<std::string> out;
    for (const DesktopEntry& e : sorted) out.push_back(e.fileId);
    return out;
}

}  // namespace vt::mixer
