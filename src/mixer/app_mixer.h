// The app mixer as the model sees it: the user's levels, mutes, groups and
// solo (MixerSettings), the apps playing now (AppCatalog), and the gains that
// follow from them, handed to AppVolumes whenever they change. Every app ever
// heard is remembered, so its level returns the next time it plays. Edits
// reach the sound at once and the settings file 0.4 s after the last one.
//
// Main thread only. AppModel owns one and forwards to it.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "dispatch/main_queue.h"
#include "mixer/app_catalog.h"
#include "mixer/app_identity.h"
#include "mixer/app_streams.h"
#include "mixer/app_volumes.h"
#include "mixer/mixer_settings.h"
#include "settings/settings.h"

namespace vt::mixer {

class AppMixer {
  public:
    static constexpr double pollSeconds = 1.0;
    static constexpr double saveSeconds = 0.4;

    AppMixer(AppStreams& streams, dispatch::MainQueue& main, settings::Settings& settings,
             std::unique_ptr<AppIdentity> identity, int ownPid);
    ~AppMixer();
    AppMixer(const AppMixer&) = delete;
    AppMixer& operator=(const AppMixer&) = delete;

    // Gives back what a run that died left turned down, then follows the
    // streams. Once.
    void start();
    // Every app back at its own level, the settings written.
    void shutDown();
    // Called whenever what the strips show may have changed.
    std::function<void()> onChanged;

    const MixerSettings& settings() const { return mixer_; }
    const std::vector<AppSource>& sources() const { return catalog_.sources(); }
    const std::optional<std::string>& soloedApp() const { return soloed_; }
    // Playing apps a person would know, by name; then the remembered ones
    // that are not playing.
    std::vector<std::string> playingApps();
    std::vector<std::string> rememberedApps();
    bool isPlaying(const std::string& id) const;
    std::string appName(const std::string& id);
    // The desktop entry's file id ("org.gnome.Rhythmbox3"), through which
    // the window finds the app's icon; empty for none.
    std::string desktopEntry(const std::string& id);
    // "40 percent, plays at 20 percent because of Music" and its kind.
    std::string levelDescription(const std::string& id) const;
    // "40% × ⁨Music⁩ 50% = 20%".
    std::string levelArithmetic(const std::string& id) const;
    const GainTable& lastGains() const { return lastGains_; }

    void setAppLevel(const std::string& id, double level);
    void toggleAppMute(const std::string& id);
    void setAppMuted(const std::string& id, bool muted);
    void setSolo(const std::optional<std::string>& id);
    void rememberApp(const std::string& id);
    void forgetApp(const std::string& id);
    void setGroupLevel(const std::string& id, double level);
    void toggleGroupMute(const std::string& id);
    std::string createGroup(const std::string& name, double level,
                            const std::set<std::string>& members);
    void renameGroup(const std::string& id, const std::string& name);
    void removeGroup(const std::string& id);
    void setGroupMembers(const std::string& id, const std::set<std::string>& members);
    void resetGroup(const std::string& id);

    // The streams changed (or the poll came round).
    void refresh();
    void pushGains();
    void flush();

  private:
    void edit(const std::function<void(MixerSettings&)>& change);
    void save(MixerSettings settings);
    void rememberPlayingApps();
    bool isKnownApp(const std::string& id);
    void changed() {
        if (onChanged) onChanged();
    }

    AppStreams& streams_;
    dispatch::MainQueue& main_;
    settings::Settings& settings_;
    std::unique_ptr<AppIdentity> identity_;
    AppCatalog catalog_;
    AppVolumes volumes_;
    MixerSettings mixer_;
    std::optional<std::string> soloed_;
    GainTable lastGains_;
    bool pushedOnce_ = false;
    bool started_ = false;
    std::unique_ptr<dispatch::TimerHandle> poll_;
    std::unique_ptr<dispatch::TimerHandle> pendingSave_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace vt::mixer
