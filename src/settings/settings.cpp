#include "settings/settings.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "settings/atomic_file.h"
#include "settings/bounded_text.h"
#include "settings/config_paths.h"

namespace vt::settings {

using nlohmann::json;

namespace {

std::string outputKey(int n) {
    return "output" + std::to_string(n);
}

}  // namespace

Settings::Settings() : Settings(settingsFile()) {}

Settings::Settings(std::filesystem::path file) : file_(std::move(file)) {
    JsonObjectLoad load = loadJsonObject(file_);
    root_ = std::move(load.object);
    setAsideAs_ = load.setAsideAs;
    lastError_ = load.error;
    if (!load.error.empty()) {
        std::fprintf(stderr, "[settings] %s; using defaults%s%s\n", load.error.c_str(),
                     setAsideAs_ ? ", the old file is kept as " : "",
                     setAsideAs_ ? setAsideAs_->c_str() : "");
    }
}

std::string Settings::lastError() const {
    std::lock_guard lock(mutex_);
    return lastError_;
}

// ------------------------------------------------------------------ plumbing

json Settings::get(const std::string& key) const {
    std::lock_guard lock(mutex_);
    auto it = root_.find(key);
    return it == root_.end() ? json() : *it;
}

bool Settings::getBool(const std::string& key, bool fallback) const {
    json v = get(key);
    return v.is_boolean() ? v.get<bool>() : fallback;
}

std::optional<std::string> Settings::getString(const std::string& key) const {
    json v = get(key);
    if (!v.is_string()) return std::nullopt;
    return v.get<std::string>();
}

void Settings::put(const std::string& key, json value) {
    std::lock_guard lock(mutex_);
    auto it = root_.find(key);
    // Sliders call setters many times with the same value; the disk need not
    // hear about it.
    if (it != root_.end() && *it == value) return;
    root_[key] = std::move(value);
    writeLocked();
}

void Settings::putOptional(const std::string& key, const std::optional<std::string>& value) {
    if (value)
        put(key, *value);
    else
        remove(key);
}

void Settings::remove(const std::string& key) {
    std::lock_guard lock(mutex_);
    if (root_.erase(key) == 0) return;
    writeLocked();
}

void Settings::writeLocked() {
    std::string error;
    if (writeFileAtomically(file_, root_.dump(2) + "\n", &error)) {
        lastError_.clear();
        warned_ = false;
        return;
    }
    lastError_ = error;
    // One line per spell of trouble, not one per slider step.
    if (!warned_) std::fprintf(stderr, "[settings] %s\n", error.c_str());
    warned_ = true;
}

// ---------------------------------------------------------------------- rows

int Settings::outputCount() const {
    json v = get("outputCount");
    if (!v.is_number()) return 0;
    double n = v.get<double>();
    if (!std::isfinite(n)) return 0;
    return static_cast<int>(std::clamp(std::floor(n), 0.0, double(maxOutputCount)));
}

void Settings::setOutputCount(int count) {
    put("outputCount", std::clamp(count, 0, maxOutputCount));
}

OutputSettings Settings::loadOutput(int n) const {
    return get(outputKey(n)).get<OutputSettings>();
}

void Settings::saveOutput(int n, const OutputSettings& settings) {
    if (n < 0) return;
    put(outputKey(n), json(settings));
}

std::map<std::string, RememberedOutput> Settings::memory() const {
    std::map<std::string, RememberedOutput> out;
    json v = get("outputMemory");
    if (!v.is_object()) return out;
    for (auto it = v.begin(); it != v.end(); ++it) {
        // An entry that is not a record is damage; the rest still count.
        if (!it.value().is_object()) continue;
        out[it.key()] = it.value().get<RememberedOutput>();
    }
    return out;
}

std::optional<RememberedOutput> Settings::rememberedOutput(const std::string& key) const {
    auto all = memory();
    auto it = all.find(key);
    if (it == all.end()) return std::nullopt;
    return it->second;
}

void Settings::rememberOutput(const RememberedOutput& entry, const std::string& key) {
    std::lock_guard lock(mutex_);
    json& mem = root_["outputMemory"];
    // A damaged memory is replaced rather than kept failing.
    if (!mem.is_object()) mem = json::object();
    json value = entry;
    auto it = mem.find(key);
    if (it != mem.end() && *it == value) return;
    mem[key] = std::move(value);
    writeLocked();
}

void Settings::forgetOutput(const std::string& key) {
    std::lock_guard lock(mutex_);
    auto mem = root_.find("outputMemory");
    if (mem == root_.end() || !mem->is_object() || mem->erase(key) == 0) return;
    writeLocked();
}

std::optional<std::string> Settings::customName(const std::string& key) const {
    json names = get("outputNames");
    if (!names.is_object()) return std::nullopt;
    auto it = names.find(key);
    if (it == names.end() || !it->is_string()) return std::nullopt;
    std::string name = boundedText(it->get<std::string>());
    if (name.empty()) return std::nullopt;
    return name;
}

void Settings::setCustomName(const std::optional<std::string>& name, const std::string& key) {
    std::lock_guard lock(mutex_);
    json& names = root_["outputNames"];
    if (!names.is_object()) names = json::object();
    if (!name || name->empty()) {
        if (names.erase(key) == 0) return;
    } else {
        const std::string bounded = boundedText(*name);
        auto it = names.find(key);
        if (it != names.end() && *it == bounded) return;
        names[key] = bounded;
    }
    writeLocked();
}

bool Settings::measureHintDismissed(const std::string& key) const {
    json list = get("measureHintDismissed");
    if (!list.is_array()) return false;
    return std::any_of(list.begin(), list.end(),
                       [&](const json& e) { return e.is_string() && e.get<std::string>() == key; });
}

void Settings::dismissMeasureHint(const std::string& key) {
    std::lock_guard lock(mutex_);
    json& list = root_["measureHintDismissed"];
    if (!list.is_array()) list = json::array();
    for (const json& e : list)
        if (e.is_string() && e.get<std::string>() == key) return;
    list.push_back(key);
    writeLocked();
}

// ------------------------------------------------------- the system output

std::optional<std::string> Settings::pendingRestoreUID() const {
    return getString("pendingRestoreUID");
}
void Settings::setPendingRestoreUID(const std::optional<std::string>& uid) {
    putOptional("pendingRestoreUID", uid);
}
std::optional<std::string> Settings::lastOutputUID() const {
    return getString("lastOutputUID");
}
void Settings::setLastOutputUID(const std::optional<std::string>& uid) {
    putOptional("lastOutputUID", uid);
}

// --------------------------------------------------------------- preferences

Appearance Settings::appearance() const {
    return appearanceFromRaw(getString("appearance").value_or(""));
}
void Settings::setAppearance(Appearance appearance) {
    put("appearance", std::string(rawValue(appearance)));
}

bool Settings::showInMenuBar() const {
    return getBool("showInMenuBar", true);
}
void Settings::setShowInMenuBar(bool on) {
    put("showInMenuBar", on);
}
bool Settings::openAtLogin() const {
    return getBool("openAtLogin", false);
}
void Settings::setOpenAtLogin(bool on) {
    put("openAtLogin", on);
}

delay::PlaybackMode Settings::playbackMode() const {
    return delay::playbackModeFromStored(getString("playbackMode").value_or(""));
}
void Settings::setPlaybackMode(delay::PlaybackMode mode) {
    put("playbackMode", std::string(delay::title(mode)));
}

bool Settings::syncSlowSpeakers() const {
    return getBool("syncSlowSpeakers", true);
}
void Settings::setSyncSlowSpeakers(bool on) {
    put("syncSlowSpeakers", on);
}

VisualiserStyle Settings::visualiserStyle() const {
    return visualiserStyleFromRaw(getString("visualiserStyle").value_or(""));
}
void Settings::setVisualiserStyle(VisualiserStyle style) {
    put("visualiserStyle", std::string(rawValue(style)));
}
bool Settings::visualiserHidden() const {
    return getBool("visualiserHidden", false);
}
void Settings::setVisualiserHidden(bool hidden) {
    put("visualiserHidden", hidden);
}

double Settings::masterVolume() const {
    json v = get("masterVolume");
    if (!v.is_number()) return 1.0;
    double x = v.get<double>();
    if (!std::isfinite(x)) return 1.0;
    return std::clamp(x, 0.0, 1.0);
}
void Settings::setMasterVolume(double volume) {
    if (!std::isfinite(volume)) return;
    put("masterVolume", std::clamp(volume, 0.0, 1.0));
}

equaliser::EQSettings Settings::masterEQ() const {
    json v = get("masterEQ");
    if (!v.is_object()) return equaliser::EQSettings::flat();
    return v.get<equaliser::EQSettings>();
}
void Settings::setMasterEQ(const equaliser::EQSettings& eq) {
    put("masterEQ", json(eq));
}

std::optional<std::string> Settings::mainWindowTab() const {
    return getString("mainWindowTab");
}
void Settings::setMainWindowTab(const std::optional<std::string>& tab) {
    putOptional("mainWindowTab", tab);
}

bool Settings::hasSent() const {
    return getBool("hasSent", false);
}
void Settings::setHasSent(bool sent) {
    put("hasSent", sent);
}

std::string Settings::driverName() const {
    auto name = getString("driverName");
    if (!name || name->empty()) return defaultDriverName;
    return *name;
}
void Settings::setDriverName(const std::string& name) {
    put("driverName", name.empty() ? std::string(defaultDriverName) : name);
}

bool Settings::debugLog() const {
    return getBool("debugLog", false);
}
void Settings::setDebugLog(bool on) {
    put("debugLog", on);
}

// ------------------------------------------------------- records and others

json Settings::appMixer() const {
    return get("appMixer");
}
void Settings::setAppMixer(const json& mixer) {
    put("appMixer", mixer);
}
json Settings::room() const {
    return get("room");
}
void Settings::setRoom(const json& room) {
    put("room", room);
}

json Settings::value(const std::string& key) const {
    return get(key);
}
void Settings::setValue(const std::string& key, const json& value) {
    if (value.is_null())
        remove(key);
    else
        put(key, value);
}
void Settings::removeValue(const std::string& key) {
    remove(key);
}

}  // namespace vt::settings
