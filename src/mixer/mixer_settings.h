// What the user set in the app mixer, as a plain persisted value: a level and
// a mute for each app ever heard, three automatic groups and any custom ones,
// and the arithmetic that turns them into one gain per app (`played`).
// Levels are linear amplitude factors from 0 to 1; a group only ever lowers.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace vt::mixer {

// The two keys that stand for something other than an app.
namespace MixerSource {
inline constexpr const char* alerts = "alerts";
inline constexpr const char* airplay = "airplay";
}  // namespace MixerSource

struct AppLevel {
    double level = 1.0;
    bool muted = false;
    std::optional<std::string> name;
    bool operator==(const AppLevel&) const = default;
};

enum class AutomaticGroup { notifications, music, calls };
inline constexpr AutomaticGroup kAutomaticGroups[] = {AutomaticGroup::notifications,
                                                      AutomaticGroup::music, AutomaticGroup::calls};
const char* rawValue(AutomaticGroup kind);
std::string groupName(AutomaticGroup kind);
int groupHue(AutomaticGroup kind);
std::string ruleText(AutomaticGroup kind);
// The members by rule; browsers are never in the music or calls rules.
const std::set<std::string>& ruleMembers(AutomaticGroup kind);

struct MixerGroup {
    std::string id;
    std::string name = "Group";
    std::optional<AutomaticGroup> automatic;  // none: a custom group
    double level = 1.0;
    bool muted = false;
    std::set<std::string> added;
    std::set<std::string> removed;
    int hue = 0;
    bool isCustom() const { return !automatic; }
    bool operator==(const MixerGroup&) const = default;
};

class MixerSettings {
  public:
    static constexpr int hueCount = 5;

    std::map<std::string, AppLevel> apps;
    std::vector<MixerGroup> groups;

    // The default record: the three automatic groups, no apps.
    MixerSettings();
    // A damaged record costs only its broken entries; values are clamped.
    static MixerSettings fromJson(const nlohmann::json& j);
    nlohmann::json toJson() const;
    bool operator==(const MixerSettings&) const = default;

    double level(const std::string& id) const;
    bool isMuted(const std::string& id) const;
    std::vector<MixerGroup> groupsContaining(const std::string& id) const;
    std::set<std::string> members(const MixerGroup& group) const;
    const MixerGroup* group(const std::string& id) const;
    // The gain the app plays at: its level times every group's level, 0 when
    // it or any of its groups is muted.
    double played(const std::string& id) const;
    std::optional<MixerGroup> mutingGroup(const std::string& id) const;
    std::vector<MixerGroup> loweringGroups(const std::string& id) const;

    void setLevel(const std::string& id, double level,
                  const std::optional<std::string>& name = std::nullopt);
    void toggleMute(const std::string& id, const std::optional<std::string>& name = std::nullopt);
    bool remember(const std::string& id, const std::string& name);
    void forget(const std::string& id);
    void setGroupLevel(const std::string& id, double level);
    void toggleGroupMute(const std::string& id);
    std::string createGroup(const std::string& name, double level,
                            const std::set<std::string>& members);
    void renameGroup(const std::string& id, const std::string& name);
    void removeGroup(const std::string& id);
    void setMember(const std::string& app, const std::string& group, bool included);
    void setMembers(const std::string& group, const std::set<std::string>& apps);
    void resetGroup(const std::string& id);
    bool hasCorrections(const std::string& id) const;
    // First id wins; the automatic groups first with their own ids and
    // names; then custom groups whose ids are not an automatic one's.
    void seedAutomaticGroups();

  private:
    MixerGroup* findGroup(const std::string& id);
};

}  // namespace vt::mixer
