// Sink volumes taken over by slots and given back, the master gain that
// follows the capture sink, and sinks that change rate under an open slot.
#include <gtest/gtest.h>

#include <cmath>
#include <map>

#include "engine/rate_ratio.h"
#include "engine_fixture.h"

namespace vt::engine::test {
namespace {

class VolumeAndRate : public EngineTest {
  protected:
    void SetUp() override {
        fake.addSink("living", "Living", 48000);
        fake.setSinkVolumeByUser("living", 0.6);
        engine.start();
    }
    double livingVolume() { return fake.sinkByName("living")->volumeScalar; }
};

TEST_F(VolumeAndRate, TwoSlotsOnOneSinkShareTheSavedVolume) {
    openSlot(0, "living");
    openSlot(1, "living");
    engine.setVolume(0, 0.5);
    EXPECT_NEAR(livingVolume(), 0.5, 1e-9) << "the row volume goes to the sink";
    EXPECT_NEAR(engine.hardwareGain(0), 0.125, 1e-6) << "cube law of the server";
    EXPECT_NEAR(engine.rowGain(0), 0.125, 1e-6);

    // The first to let go hands the saved volume to the other...
    engine.setOutputDevice(0, std::nullopt);
    EXPECT_NEAR(livingVolume(), 0.5, 1e-9);
    // ...and the last one restores it.
    engine.setOutputDevice(1, std::nullopt);
    EXPECT_NEAR(livingVolume(), 0.6, 1e-9);
}

TEST_F(VolumeAndRate, SecondSlotClosingFirstLeavesTheSinkToTheFirst) {
    openSlot(0, "living");
    openSlot(1, "living");
    engine.setOutputDevice(1, std::nullopt);
    EXPECT_NEAR(livingVolume(), 1.0, 1e-9) << "slot 0 still holds it";
    engine.stop();
    EXPECT_NEAR(livingVolume(), 0.6, 1e-9);
}

// Keeps what it is given in memory, as the settings would on disk.
struct KeptVolumes : SpeakerVolumeStore {
    std::map<std::string, double> kept;
    double keep(const std::string& sink, double current) override {
        return kept.try_emplace(sink, current).first->second;
    }
    void givenBack(const std::string& sink) override { kept.erase(sink); }
};

TEST_F(VolumeAndRate, ASpeakersOwnVolumeStaysKeptUntilTheServerTookItBack) {
    KeptVolumes store;
    engine.setSpeakerVolumeStore(&store);
    openSlot(0, "living");
    EXPECT_NEAR(store.kept.at("living"), 0.6, 1e-9);
    EXPECT_NEAR(livingVolume(), 1.0, 1e-9) << "the row's volume stands in for it";

    // The server refuses the write (it has gone): the volume stays kept, and
    // the next take of the speaker does not mistake our 100 % for its own.
    fake.failWrites(true);
    engine.stop();
    EXPECT_NEAR(store.kept.at("living"), 0.6, 1e-9);
    fake.failWrites(false);
    engine.start();
    openSlot(0, "living");
    engine.stop();
    EXPECT_NEAR(livingVolume(), 0.6, 1e-9);
    EXPECT_TRUE(store.kept.empty());
}

TEST_F(VolumeAndRate, SinkWithoutVolumeUsesSoftwareGain) {
    fake.addSink("den", "Den", 48000);
    fake.changeSink("den", [](platform::SinkInfo& s) { s.hasVolume = false; });
    openSlot(2, "den");
    engine.setVolume(2, 0.3);
    EXPECT_DOUBLE_EQ(engine.hardwareGain(2), 1.0);
    EXPECT_DOUBLE_EQ(engine.rowGain(2), 0.3);
}

TEST_F(VolumeAndRate, TheSystemVolumeIsTheServersAloneAndNeverAppliedTwice) {
    fake.addSink("den", "Den", 48000);
    fake.changeSink("den", [](platform::SinkInfo& s) { s.hasVolume = false; });
    openSlot(2, "den");
    engine.setVolume(2, 0.5);

    // The monitor already carries the capture sink's volume, by the server's
    // own law: the engine adds nothing for it at any volume.
    for (double v : {0.5, 0.2, 1.0, 0.0, 0.5}) {
        fake.setSinkVolumeByUser("vellatone", v);
        main.drain();
        EXPECT_NEAR(engine.masterGain(), 1.0, 1e-6) << "system volume " << v;
    }

    // Music captured at the sink's cube-law volume (an eighth at half) leaves
    // at that level times the row's own volume, applied here for a sink
    // without a volume of its own.
    const double t0 = pastSec(5);
    pushCapture(t0, 2.0, 0.8f * 0.125f);
    auto out = fake.pullPlayback("den", 2400, t0 + 1.0);
    ASSERT_TRUE(out);
    EXPECT_NEAR(out->back(), 0.8 * 0.125 * 0.5, 1e-4);

    engine.setMuted(2, true);
    auto muted = fake.pullPlayback("den", 2400, t0 + 1.1);
    ASSERT_TRUE(muted);
    EXPECT_NEAR(muted->back(), 0.0, 1e-6);
}

TEST_F(VolumeAndRate, RateChangeSetsTheNewRatioAndReopensAtTheNewRate) {
    openSlot(0, "living");
    const double t0 = pastSec(5);
    pushCapture(t0, 1.0);
    ASSERT_TRUE(fake.pullPlayback("living", 480, t0 + 1.0));
    EXPECT_EQ(re_engine_primed(engine.ringEngine(), 0), 1);
    states.clear();

    fake.setSinkRate("living", 44100);
    main.drain();
    EXPECT_EQ(re_engine_primed(engine.ringEngine(), 0), 0) << "reader reset";
    EXPECT_DOUBLE_EQ(engine.outputRate(0), 44100);
    settle();
    ASSERT_TRUE(engine.isOpen(0));
    auto streams = fake.streams();
    bool found = false;
    for (const auto& s : streams) {
        if (!s.capture && s.device == "living") {
            EXPECT_DOUBLE_EQ(s.rate, 44100);
            found = true;
        }
    }
    EXPECT_TRUE(found);
    EXPECT_EQ(states, (std::vector<std::pair<int, bool>>{{0, false}, {0, true}}));

    // The same rate reported again changes nothing.
    fake.fireChange(platform::ChangeKind::sinks);
    settle();
    EXPECT_EQ(states.size(), 2u);
}

TEST_F(VolumeAndRate, RateSettlingJustAfterTheOpenIsCaught) {
    openSlot(0, "living");
    // No change event: the sink moves as our stream starts.
    fake.setAutoNotify(false);
    settle();
    fake.setSinkRate("living", 96000);
    main.advance(0.31);
    settle();
    EXPECT_DOUBLE_EQ(engine.outputRate(0), 96000);
}

TEST(RateRatio, ClampsToTheSupportedRange) {
    EXPECT_DOUBLE_EQ(baseRatioForRate(44100), 48000.0 / 44100.0);
    EXPECT_DOUBLE_EQ(baseRatioForRate(32000), baseRatioForRate(44100));
    EXPECT_DOUBLE_EQ(baseRatioForRate(48000), 1.0);
    EXPECT_DOUBLE_EQ(baseRatioForRate(192000), 0.5);
    EXPECT_DOUBLE_EQ(baseRatioForRate(NAN), baseRatioForRate(44100));
}

}  // namespace
}  // namespace vt::engine::test
