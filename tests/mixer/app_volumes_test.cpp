#include "mixer/app_volumes.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>

#include "dispatch/virtual_main_queue.h"
#include "fake_app_streams.h"

namespace vt::mixer {
namespace {

struct AppVolumesTest : testing::Test {
    FakeStreams streams;
    dispatch::VirtualMainQueue main;
    std::filesystem::path dir = std::filesystem::path(testing::TempDir()) /
                                ("vt-volumes" + std::to_string(::getpid()) +
                                 testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::path file = dir / "settings.json";
    std::unique_ptr<settings::Settings> settings;
    AppVolumesTest() {
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
        std::filesystem::permissions(dir, std::filesystem::perms::owner_all);
        settings = std::make_unique<settings::Settings>(file);
        streams.add(1, {40000, 30000});  // an app with its own balance
        streams.add(2, {50000, 50000});
    }
    ~AppVolumesTest() override {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
    double linear(uint32_t index, size_t ch) {
        return streams.toLinear(streams.all[index].volume[ch]);
    }
};

TEST_F(AppVolumesTest, AGainScalesEachChannelAndGoesBackExactlyAtOne) {
    AppVolumes volumes(streams, main, *settings);
    const double left = linear(1, 0), right = linear(1, 1);
    volumes.streamsChanged();  // already playing: a change ramps
    volumes.apply({{"music", {{1}, 0.5}}});
    EXPECT_FALSE(settings->value(AppVolumes::settingsKey).is_null());  // kept before the change
    main.advance(0.005);
    EXPECT_GT(linear(1, 0), 0.5 * left + 1e-3);  // ramping, not there yet
    main.advance(0.1);
    EXPECT_NEAR(linear(1, 0), 0.5 * left, 1e-4);
    EXPECT_NEAR(linear(1, 1), 0.5 * right, 1e-4);
    EXPECT_EQ(streams.all[2].volume, (std::vector<RawVolume>{50000, 50000}));
    volumes.apply({});
    main.advance(0.1);
    EXPECT_EQ(streams.all[1].volume, (std::vector<RawVolume>{40000, 30000}));
    EXPECT_TRUE(settings->value(AppVolumes::settingsKey).is_null());
    const int writes = streams.writes;
    main.advance(1.0);
    EXPECT_EQ(streams.writes, writes);  // nothing ramps: no writes
}

TEST_F(AppVolumesTest, AChangeMadeElsewhereBecomesTheOriginalAndNewStreamsGetTheGain) {
    AppVolumes volumes(streams, main, *settings);
    volumes.apply({{"music", {{1}, 0.5}}});
    main.advance(AppVolumes::kSettleSeconds);
    streams.all[1].volume = {20000, 20000};  // a desktop panel moved it
    volumes.streamsChanged();
    main.advance(0.1);
    EXPECT_EQ(streams.all[1].volume, (std::vector<RawVolume>{20000, 20000}));  // not fought
    streams.add(3, {60000, 60000});
    volumes.apply({{"music", {{1, 3}, 0.5}}});
    main.advance(0.1);
    EXPECT_NEAR(linear(3, 0), 0.5 * streams.toLinear(60000), 1e-4);  // at once, no ramp
    streams.all[3].volume = {50000, 50000};  // the server's kept volume, a moment later
    volumes.streamsChanged();
    EXPECT_NEAR(linear(3, 0), 0.5 * streams.toLinear(50000), 1e-4);
    streams.all.erase(3);  // ends while turned down
    volumes.streamsChanged();
    EXPECT_EQ(streams.stored["key3"], (std::vector<RawVolume>{50000, 50000}));
    // The app's next stream, given our level by the server before it took
    // the original back: its own is still the original.
    const RawVolume ours = streams.fromLinear(0.5 * streams.toLinear(50000));
    streams.add(4, {ours, ours});
    streams.all[4].properties[kRestoreKeyProperty] = "key3";
    volumes.apply({{"music", {{1, 4}, 0.5}}});
    EXPECT_EQ(*volumes.originalOf(4), (std::vector<RawVolume>{50000, 50000}));
    volumes.restoreAll();
    EXPECT_NEAR(linear(1, 0), 2 * streams.toLinear(20000), 1e-4);
}

TEST_F(AppVolumesTest, AStreamFirstReportedSilentIsHeldOnlyOnceItHasItsVolume) {
    AppVolumes volumes(streams, main, *settings);
    streams.add(3, {0, 0});  // as pipewire-pulse lists a stream it has no volume for yet
    volumes.apply({{"music", {{3}, 0.5}}});
    EXPECT_EQ(volumes.originalOf(3), nullptr);
    streams.all[3].volume = {50000, 50000};  // what the server gives it
    volumes.streamsChanged();
    EXPECT_NEAR(linear(3, 0), 0.5 * streams.toLinear(50000), 1e-4);  // at once, no ramp
    // Silenced by a solo, it ends; the app's next stream may be handed our 0.
    volumes.apply({{"music", {{3}, 0.0}}});
    main.advance(0.1);
    streams.all.erase(3);
    volumes.streamsChanged();
    streams.add(4, {0, 0});
    streams.all[4].properties[kRestoreKeyProperty] = "key3";
    volumes.apply({{"music", {{4}, 0.0}}});
    ASSERT_NE(volumes.originalOf(4), nullptr);
    EXPECT_EQ(*volumes.originalOf(4), (std::vector<RawVolume>{50000, 50000}));
}

TEST_F(AppVolumesTest, WhatTheServerKeepsIsPutRightOnceItIsBack) {
    AppVolumes volumes(streams, main, *settings);
    volumes.apply({{"music", {{1}, 0.5}}});
    main.advance(0.1);
    streams.away = true;  // the server restarts: its streams end, turned down
    streams.all.clear();
    volumes.streamsChanged();
    EXPECT_FALSE(streams.stored.contains("key1"));
    streams.away = false;
    volumes.streamsChanged();  // the poll after it is back
    EXPECT_EQ(streams.stored["key1"], (std::vector<RawVolume>{40000, 30000}));
}

TEST_F(AppVolumesTest, WhatTheServerCouldNotBeToldBeforeAQuitIsToldByTheNextLaunch) {
    {
        AppVolumes volumes(streams, main, *settings);
        volumes.apply({{"music", {{1}, 0.5}}});
        main.advance(0.1);
        streams.away = true;
        streams.all.clear();
        volumes.streamsChanged();
        volumes.restoreAll();  // quits while the server is away
    }
    EXPECT_TRUE(streams.stored.empty());
    settings::Settings reread(file);
    AppVolumes next(streams, main, reread);
    next.restorePending();  // the server is still away at launch
    EXPECT_TRUE(streams.stored.empty());
    streams.away = false;
    next.streamsChanged();
    EXPECT_EQ(streams.stored["key1"], (std::vector<RawVolume>{40000, 30000}));
    EXPECT_TRUE(reread.value(AppVolumes::keepsKey).is_null());
}

TEST_F(AppVolumesTest, TheNextLaunchGivesBackWhatARunThatDiedLeftDown) {
    {
        AppVolumes volumes(streams, main, *settings);
        volumes.apply({{"music", {{1, 2}, 0.0}}});
        main.advance(0.1);
        streams.all.erase(2);  // gone meanwhile
    }                          // dies without restoring
    EXPECT_EQ(streams.all[1].volume, (std::vector<RawVolume>{0, 0}));
    streams.stored.clear();  // the server kept ours
    settings::Settings reread(file);
    AppVolumes next(streams, main, reread);
    next.restorePending();
    EXPECT_EQ(streams.all[1].volume, (std::vector<RawVolume>{40000, 30000}));
    EXPECT_EQ(streams.stored["key1"], (std::vector<RawVolume>{40000, 30000}));
    EXPECT_EQ(streams.stored["key2"], (std::vector<RawVolume>{50000, 50000}));
    EXPECT_TRUE(reread.value(AppVolumes::settingsKey).is_null());
    // The level is another now; a report from before the give-back, late,
    // is not the server's kept volume.
    next.apply({{"music", {{1}, 0.5}}});
    streams.all[1].volume = {0, 0};
    next.streamsChanged();
    EXPECT_EQ(*next.originalOf(1), (std::vector<RawVolume>{40000, 30000}));
}

}  // namespace
}  // namespace vt::mixer
