#include "mixer/app_volumes.h"

#include <gtest/gtest.h>

#include <cmath>

#include "dispatch/virtual_main_queue.h"

namespace vt::mixer {
namespace {

// A server with the cubic law both real ones use.
class FakeStreams final : public AppStreams {
  public:
    std::map<uint32_t, AppStream> all;
    int writes = 0;
    std::vector<AppStream> streams() override {
        std::vector<AppStream> out;
        for (const auto& [i, s] : all) out.push_back(s);
        return out;
    }
    void setVolume(uint32_t index, const std::vector<RawVolume>& v) override {
        ++writes;
        if (auto it = all.find(index); it != all.end()) it->second.volume = v;
    }
    void setChangeHandler(std::function<void()>) override {}
    double toLinear(RawVolume v) const override { return std::pow(double(v) / kFullVolume, 3); }
    RawVolume fromLinear(double l) const override {
        return RawVolume(std::lround(std::cbrt(l) * kFullVolume));
    }
    void add(uint32_t index, std::vector<RawVolume> v) { all[index] = AppStream{index, {}, v}; }
};

struct AppVolumesTest : testing::Test {
    FakeStreams streams;
    dispatch::VirtualMainQueue main;
    std::filesystem::path file = std::filesystem::path(testing::TempDir()) / "vt-volumes.json";
    std::unique_ptr<settings::Settings> settings;
    AppVolumesTest() {
        std::filesystem::remove(file);
        settings = std::make_unique<settings::Settings>(file);
        streams.add(1, {40000, 30000});  // an app with its own balance
        streams.add(2, {50000, 50000});
    }
    double linear(uint32_t index, size_t ch) {
        return streams.toLinear(streams.all[index].volume[ch]);
    }
};

TEST_F(AppVolumesTest, AGainScalesEachChannelAndGoesBackExactlyAtOne) {
    AppVolumes volumes(streams, main, *settings);
    const double left = linear(1, 0), right = linear(1, 1);
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
    main.advance(1.0);
    streams.all[1].volume = {20000, 20000};  // a desktop panel moved it
    volumes.streamsChanged();
    main.advance(0.1);
    EXPECT_EQ(streams.all[1].volume, (std::vector<RawVolume>{20000, 20000}));  // not fought
    streams.add(3, {60000, 60000});
    volumes.apply({{"music", {{1, 3}, 0.5}}});
    main.advance(0.1);
    EXPECT_NEAR(linear(3, 0), 0.5 * streams.toLinear(60000), 1e-4);
    volumes.restoreAll();
    EXPECT_EQ(streams.all[3].volume, (std::vector<RawVolume>{60000, 60000}));
    EXPECT_NEAR(linear(1, 0), 2 * streams.toLinear(20000), 1e-4);
}

TEST_F(AppVolumesTest, TheNextLaunchGivesBackWhatARunThatDiedLeftDown) {
    {
        AppVolumes volumes(streams, main, *settings);
        volumes.apply({{"music", {{1, 2}, 0.0}}});
        main.advance(0.1);
        streams.all.erase(2);  // gone meanwhile
    }                          // dies without restoring
    EXPECT_EQ(streams.all[1].volume, (std::vector<RawVolume>{0, 0}));
    settings::Settings reread(file);
    AppVolumes::restorePending(streams, reread);
    EXPECT_EQ(streams.all[1].volume, (std::vector<RawVolume>{40000, 30000}));
    EXPECT_TRUE(reread.value(AppVolumes::settingsKey).is_null());
}

}  // namespace
}  // namespace vt::mixer
