#include "mixer/app_rules.h"

#include <map>

namespace vt::mixer {

namespace Browsers {

const std::set<std::string>& ids() {
    static const std::set<std::string> table = {"firefox",
                                                "firefox-developer-edition",
                                                "firefox-nightly",
                                                "org.mozilla.firefox",
                                                "chromium",
                                                "org.chromium.Chromium",
                                                "google-chrome",
                                                "com.google.Chrome",
                                                "microsoft-edge",
                                                "com.microsoft.Edge",
                                                "brave",
                                                "com.brave.Browser",
                                                "opera",
                                                "vivaldi",
                                                "com.vivaldi.Vivaldi",
                                                "zen",
                                                "app.zen_browser.zen",
                                                "librewolf",
                                                "epiphany",
                                                "org.gnome.Epiphany"};
    return table;
}

bool contains(const std::string& id) {
    if (ids().contains(id)) return true;
    for (const std::string& b : ids())
        if (id.size() > b.size() && id.compare(0, b.size(), b) == 0 && id[b.size()] == '.')
            return true;
    return false;
}

}  // namespace Browsers

std::optional<std::string> programOfHelper(const std::string& binary) {
    static const std::map<std::string, std::string> helpers = {
        {"firefox-esr", "firefox"},
        {"firefox-bin", "firefox"},
        {"chromium-browser", "chromium"},
        {"chrome", "google-chrome"},
        {"google-chrome-stable", "google-chrome"},
        {"brave-browser", "brave"},
        {"msedge", "microsoft-edge"},
        {"microsoft-edge-stable", "microsoft-edge"},
        {"vivaldi-bin", "vivaldi"},
        {"zoom.real", "zoom"},
        {"zoomwebviewhost", "zoom"},
        {"discordptb", "discord-ptb"},
        {"discordcanary", "discord-canary"},
        {"ts3client_linux_amd64", "teamspeak3"},
        {"spotify-launcher", "spotify"},
        {"mpv-bin", "mpv"},
        {"vlc-bin", "vlc"},
    };
    auto it = helpers.find(binary);
    if (it == helpers.end()) return std::nullopt;
    return it->second;
}

namespace rules {

const std::set<std::string>& notifications() {
    static const std::set<std::string> table = {"alerts", "whatsapp-for-linux",
                                                "com.github.eneshecan.WhatsAppForLinux"};
    return table;
}

const std::set<std::string>& music() {
    static const std::set<std::string> table = {"spotify",
                                                "com.spotify.Client",
                                                "rhythmbox",
                                                "org.gnome.Rhythmbox3",
                                                "vlc",
                                                "org.videolan.VLC",
                                                "mpv",
                                                "io.mpv.Mpv",
                                                "tidal-hifi",
                                                "gnome-podcasts",
                                                "org.gnome.Podcasts",
                                                "lollypop",
                                                "strawberry",
                                                "audacious"};
    return table;
}

const std::set<std::string>& calls() {
    static const std::set<std::string> table = {"zoom",
                                                "us.zoom.Zoom",
                                                "teams-for-linux",
                                                "teams",
                                                "slack",
                                                "com.slack.Slack",
                                                "discord",
                                                "com.discordapp.Discord",
                                                "discord-ptb",
                                                "discord-canary",
                                                "webex",
                                                "skypeforlinux",
                                                "com.skype.Client",
                                                "teamspeak3",
                                                "mumble",
                                                "org.gnome.Calls"};
    return table;
}

}  // namespace rules

}  // namespace vt::mixer
