// Everything the program remembers between runs, except secrets: one JSON
// object in one file, a typed getter and setter for each key, every getter
// with a default so that a missing or damaged value never stops a launch.
// Values that are records themselves (rows, the equaliser, the room, the
// mixer) are kept as nested JSON.
//
// Every setter writes the whole file at once, atomically; when the write
// fails the value still holds for this run and the file keeps its last good
// state. Safe to call from any thread.
#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "delay/playback_mode.h"
#include "equaliser/eq_settings.h"
#include "settings/output_settings.h"
#include "settings/preferences.h"

namespace vt::settings {

class Settings {
  public:
    static constexpr const char* defaultDriverName = "Vellatone";
    // Rows beyond this many cannot exist, so a larger stored count is damage.
    static constexpr int maxOutputCount = 8;

    // Loads `file`; a file that does not hold a JSON object is set aside (see
    // loadJsonObject) and the defaults apply.
    explicit Settings(std::filesystem::path file);
    // The settings at their usual place (settingsFile()).
    Settings();
    Settings(const Settings&) = delete;
    Settings& operator=(const Settings&) = delete;

    const std::filesystem::path& file() const { return file_; }
    // Where a damaged file was moved at load, if it was.
    const std::optional<std::filesystem::path>& setAsideAs() const { return setAsideAs_; }
    // Why the last load or write went wrong; empty while all is well.
    std::string lastError() const;

    // --- Rows.
    int outputCount() const;
    void setOutputCount(int count);
    // "output" + n; defaults when it is absent or unreadable.
    OutputSettings loadOutput(int n) const;
    void saveOutput(int n, const OutputSettings& settings);

    std::map<std::string, RememberedOutput> memory() const;
    std::optional<RememberedOutput> rememberedOutput(const std::string& key) const;
    void rememberOutput(const RememberedOutput& entry, const std::string& key);
    void forgetOutput(const std::string& key);

    std::optional<std::string> customName(const std::string& key) const;
    // A missing or empty name removes the entry.
    void setCustomName(const std::optional<std::string>& name, const std::string& key);

    bool measureHintDismissed(const std::string& key) const;
    void dismissMeasureHint(const std::string& key);

    // --- The system output that is to be given back, and the last real one.
    std::optional<std::string> pendingRestoreUID() const;
    // Nothing removes the key.
    void setPendingRestoreUID(const std::optional<std::string>& uid);
    std::optional<std::string> lastOutputUID() const;
    void setLastOutputUID(const std::optional<std::string>& uid);

    // --- Preferences.
    Appearance appearance() const;
    void setAppearance(Appearance appearance);
    bool showInMenuBar() const;
    void setShowInMenuBar(bool on);
    bool openAtLogin() const;
    void setOpenAtLogin(bool on);
    delay::PlaybackMode playbackMode() const;
    void setPlaybackMode(delay::PlaybackMode mode);
    bool syncSlowSpeakers() const;
    void setSyncSlowSpeakers(bool on);
    VisualiserStyle visualiserStyle() const;
    void setVisualiserStyle(VisualiserStyle style);
    bool visualiserHidden() const;
    void setVisualiserHidden(bool hidden);
    double masterVolume() const;  // 0..1
    void setMasterVolume(double volume);
    equaliser::EQSettings masterEQ() const;
    void setMasterEQ(const equaliser::EQSettings& eq);
    std::optional<std::string> mainWindowTab() const;
    void setMainWindowTab(const std::optional<std::string>& tab);
    bool hasSent() const;
    void setHasSent(bool sent);
    // An empty stored name and the name of the old loopback driver count as
    // absent; storing an empty name stores the default.
    std::string driverName() const;
    void setDriverName(const std::string& name);
    bool debugLog() const;
    void setDebugLog(bool on);

    // --- Records whose types live with their own subsystems, as stored JSON:
    // null when absent, and the owner decodes them tolerantly.
    nlohmann::json appMixer() const;
    void setAppMixer(const nlohmann::json& mixer);
    nlohmann::json room() const;
    void setRoom(const nlohmann::json& room);

    // --- Any other key (the AirPlay store, the remote's pairing): the stored
    // value or null.
    nlohmann::json value(const std::string& key) const;
    void setValue(const std::string& key, const nlohmann::json& value);
    void removeValue(const std::string& key);

  private:
    nlohmann::json get(const std::string& key) const;
    bool getBool(const std::string& key, bool fallback) const;
    std::optional<std::string> getString(const std::string& key) const;
    void put(const std::string& key, nlohmann::json value);
    void putOptional(const std::string& key, const std::optional<std::string>& value);
    void remove(const std::string& key);
    void writeLocked();

    std::filesystem::path file_;
    std::optional<std::filesystem::path> setAsideAs_;
    mutable std::mutex mutex_;
    nlohmann::json root_;
    std::string lastError_;
    bool warned_ = false;
};

}  // namespace vt::settings
