#include "mixer/app_mixer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "dispatch/virtual_main_queue.h"
#include "fake_app_streams.h"

namespace vt::mixer {
namespace {

struct AppMixerTest : testing::Test {
    FakeStreams streams;
    dispatch::VirtualMainQueue main;
    std::filesystem::path dir = std::filesystem::path(testing::TempDir()) /
                                ("vt-app-mixer" + std::to_string(::getpid()) +
                                 testing::UnitTest::GetInstance()->current_test_info()->name());
    std::unique_ptr<settings::Settings> settings;
    std::unique_ptr<AppMixer> mixer;

    AppMixerTest() {
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir / "applications");
        std::filesystem::permissions(dir, std::filesystem::perms::owner_all);
        std::ofstream(dir / "applications/spotify.desktop")
            << "[Desktop Entry]\nType=Application\nName=Spotify\nExec=spotify\n";
        settings = std::make_unique<settings::Settings>(dir / "settings.json");
        play(1, "spotify");
        play(2, "zoom");
        mixer = std::make_unique<AppMixer>(
            streams, main, *settings,
            std::make_unique<AppIdentity>(std::vector{dir / "applications"}), 99);
        mixer->start();
    }
    ~AppMixerTest() override {
        mixer.reset();
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
    void play(uint32_t index, const std::string& binary) {
        streams.add(index, {kFullVolume, kFullVolume});
        streams.all[index].properties["application.process.binary"] = binary;
        if (streams.handler) streams.handler();
        main.drain();
    }
    double gainOf(uint32_t index) { return streams.toLinear(streams.all[index].volume[0]); }
};

TEST_F(AppMixerTest, LevelsSoloAndGroupsReachTheStreams) {
    EXPECT_EQ(mixer->playingApps(), std::vector<std::string>{"spotify"});  // zoom: no entry
    EXPECT_TRUE(mixer->settings().apps.contains("spotify"));               // remembered
    mixer->setAppLevel("spotify", 0.5);
    main.advance(0.1);
    EXPECT_NEAR(gainOf(1), 0.5, 1e-4);
    EXPECT_NEAR(gainOf(2), 1.0, 1e-9);

    mixer->setSolo("zoom");
    main.advance(0.1);
    EXPECT_EQ(gainOf(1), 0.0);
    mixer->setSolo(std::nullopt);
    mixer->toggleGroupMute("calls");
    main.advance(0.1);
    EXPECT_EQ(gainOf(2), 0.0);
    play(3, "zoom");  // a new stream of a muted group starts muted
    EXPECT_EQ(gainOf(3), 0.0);

    mixer->setGroupLevel("music", 0.5);
    EXPECT_EQ(mixer->levelArithmetic("spotify"), "50% × \u2068Music\u2069 50% = 25%");
    EXPECT_EQ(mixer->levelDescription("spotify"),
              "50 percent, plays at 25 percent because of Music");
    EXPECT_EQ(mixer->levelDescription("zoom"), "100 percent, muted by Voice");
    mixer->toggleAppMute("spotify");
    EXPECT_EQ(mixer->levelArithmetic("spotify"), "Muted, returns to 50%");

    main.advance(AppMixer::saveSeconds);  // written once the edits settle
    EXPECT_EQ(MixerSettings::fromJson(settings->appMixer()), mixer->settings());
    mixer->shutDown();
    for (uint32_t i : {1u, 2u, 3u}) EXPECT_EQ(gainOf(i), 1.0);
}

}  // namespace
}  // namespace vt::mixer
