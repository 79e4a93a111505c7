#include "mixer/app_catalog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "mixer/app_identity.h"
#include "mixer/app_rules.h"

namespace vt::mixer {
namespace {

AppStream stream(uint32_t index, std::map<std::string, std::string> props, bool corked = false) {
    AppStream s;
    s.index = index;
    s.properties = std::move(props);
    s.corked = corked;
    return s;
}

TEST(AppCatalog, FoldsStreamsOntoTheirApps) {
    const std::vector<AppStream> streams = {
        stream(9,
               {{"application.process.binary", "firefox-esr"}, {"application.process.id", "40"}}),
        stream(4, {{"application.process.binary", "Firefox-bin"}, {"application.process.id", "41"}},
               true),
        stream(5, {{"media.role", "event"}, {"application.id", "org.gnome.Shell"}}),
        stream(6, {{"application.id", "com.spotify.Client"}, {"application.name", "Spotify"}}),
        stream(7, {{"application.name", "nameless"}}),  // no id: not an app
        stream(8, {{"application.process.binary", "vellatone"}, {"application.process.id", "77"}}),
    };
    AppStream ours = stream(10, {{"application.process.binary", "other"}});
    ours.ours = true;
    std::vector<AppStream> all = streams;
    all.push_back(ours);

    const std::vector<AppSource> sources = AppCatalog::fold(all, 77);
    ASSERT_EQ(sources.size(), 3u);
    EXPECT_EQ(sources[0].id, "alerts");
    EXPECT_EQ(sources[1].id, "com.spotify.Client");
    EXPECT_EQ(sources[1].streams[0].name, "Spotify");
    EXPECT_EQ(sources[2].id, "firefox");
    EXPECT_EQ(sources[2].indices(), (std::vector<uint32_t>{4, 9}));
    EXPECT_TRUE(sources[2].playing());  // one of its two streams plays
    EXPECT_EQ(AppCatalog::displayName(stream(1, {{"application.process.id", "12"}})), "PID 12");
    EXPECT_TRUE(Browsers::contains("org.chromium.Chromium.helper"));
    EXPECT_FALSE(Browsers::contains("org.chromium.ChromiumX"));
}

TEST(AppIdentity, NamesAppsFromTheirDesktopEntries) {
    const auto dir =
        std::filesystem::path(testing::TempDir()) / ("vt-identity" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    auto write = [&](const std::string& file, const std::string& text) {
        std::ofstream(dir / file) << text;
    };
    write("org.gnome.Rhythmbox3.desktop",
          "[Desktop Entry]\nType=Application\nName=Rhythmbox\nIcon=org.gnome.Rhythmbox3\n"
          "Exec=rhythmbox %U\n[Desktop Action x]\nName=Other\n");
    write("firefox-esr.desktop",
          "[Desktop Entry]\nType=Application\nName=Firefox ESR\nExec=/usr/lib/firefox-esr/"
          "firefox-esr %u\nStartupWMClass=Firefox-esr\n");
    write("hidden.desktop", "[Desktop Entry]\nType=Application\nName=Hidden\nNoDisplay=true\n");
    AppIdentity identity({dir});
    EXPECT_EQ(identity.name("org.gnome.Rhythmbox3", std::nullopt), "Rhythmbox");
    EXPECT_EQ(identity.name("rhythmbox", std::nullopt), "Rhythmbox");
    EXPECT_EQ(identity.icon("rhythmbox"), "org.gnome.Rhythmbox3");
    EXPECT_EQ(identity.name("firefox", std::nullopt), "Firefox ESR");
    EXPECT_FALSE(identity.isApp("hidden"));
    EXPECT_EQ(identity.name("hidden", std::string("Kept")), "Kept");
    EXPECT_EQ(identity.name("alerts", std::nullopt), "Alert sounds");
    std::vector<std::string> installed = identity.loadInstalled();
    std::filesystem::remove_all(dir);
    EXPECT_EQ(installed, (std::vector<std::string>{"firefox-esr", "org.gnome.Rhythmbox3"}));
}

}  // namespace
}  // namespace vt::mixer
