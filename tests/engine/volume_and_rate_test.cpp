// Sink volumes taken over by slots and given back, the master gain that
// follows the capture sink, and sinks that change rate under an open slot.
#include <gtest/gtest.h>

#include <cmath>

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

TEST_F(VolumeAndRate, SinkWithoutVolumeUsesSoftwareGain) {
    fake.addSink("den", "Den", 48000);
    fake.changeSink("den", [](platform::SinkInfo& s) { s.hasVolume = false; });
    openSlot(2, "den");
    engine.setVolume(2, 0.3);
    EXPECT_DOUBLE_EQ(engine.hardwareGain(2), 1.0);
    EXPECT_DOUBLE_EQ(engine.rowGain(2), 0.3);
}

TEST_F(VolumeAndRate, MasterGainFollowsTheCaptureSinkAndReachesTheAudio) {
    fake.addSink("den", "Den", 48000);
    fake.changeSink("den", [](platform::SinkInfo& s) { s.hasVolume = false; });
    openSlot(2, "den");
    engine.setVolume(2, 0.5);

    // The slider at half is heard as a quarter; the monitor already carries
    // the sink's cube law, an eighth, which is divided out.
    fake.setSinkVolumeByUser("vellatone", 0.5);
    main.drain();
    EXPECT_NEAR(engine.masterGain(), 2.0, 1e-6);
    fake.setSinkVolumeByUser("vellatone", 1.0);
    main.drain();
    EXPECT_NEAR(engine.masterGain(), 1.0, 1e-6);
    fake.setSinkVolumeByUser("vellatone", 0.0);
    main.drain();
    EXPECT_NEAR(engine.masterGain(), 1.0, 1e-6) << "nothing to divide out of silence";
    fake.setSinkVolumeByUser("vellatone", 0.5);
    main.drain();

    // The monitor delivers the music already at the sink's cube-law volume;
    // the slot ends at row volume times the square of the slider.
    const double t0 = pastSec(5);
    pushCapture(t0, 2.0, 0.8f * 0.125f);
    auto out = fake.pullPlayback("den", 2400, t0 + 1.0);
    ASSERT_TRUE(out);
    EXPECT_NEAR(out->back(), 0.8 * 0.5 * 0.25, 1e-4);

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
