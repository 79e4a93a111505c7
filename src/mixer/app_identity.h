// Names and icons for people: an app id as the catalog makes it, matched to
// the desktop entries in the XDG applications folders ($XDG_DATA_HOME, then
// each of $XDG_DATA_DIRS) by the entry's file name, its program's binary or
// its StartupWMClass. The folders are read once, at the first question.
//
// Main thread only.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vt::mixer {

struct DesktopEntry {
    std::string fileId;  // "org.gnome.Rhythmbox3" for org.gnome.Rhythmbox3.desktop
    std::string name;
    std::string icon;  // a theme icon name or an absolute path; may be empty
};

class AppIdentity {
  public:
    // The folders from the environment.
    AppIdentity();
    explicit AppIdentity(std::vector<std::filesystem::path> applicationFolders);

    // "Alert sounds" for the alerts; the desktop entry's name; else what was
    // remembered; else the id itself.
    std::string name(const std::string& id, const std::optional<std::string>& remembered);
    std::optional<DesktopEntry> entry(const std::string& id);
    std::string icon(const std::string& id);
    // An app a person would know: it has a desktop entry.
    bool isApp(const std::string& id) { return entry(id).has_value(); }
    // Every app that can be chosen by hand, by id, sorted by name.
    std::vector<std::string> loadInstalled();

    // One entry's text; none for a hidden entry or one that is not an
    // application. Bounded: lines past 64 KiB are not read.
    static std::optional<DesktopEntry> parse(const std::string& fileId, const std::string& text,
                                             std::vector<std::string>* keys = nullptr);

  private:
    void load();

    std::vector<std::filesystem::path> folders_;
    bool loaded_ = false;
    std::map<std::string, DesktopEntry> byKey_;  // lower-cased match keys
    std::vector<DesktopEntry> entries_;
};

}  // namespace vt::mixer
