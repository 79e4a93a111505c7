// Solo and forced mutes (which must never leave a saved mute behind), the
// delays pushed to the engine, and the equaliser operations.
#include "equaliser/eq_preset.h"
#include "model_fixture.h"

namespace vt::model::test {
namespace {

using Mutes = ModelTest;
using Delays = ModelTest;
using Equalisers = ModelTest;

std::vector<bool> muted(const AppModel& m) {
    std::vector<bool> out;
    for (const RowState& r : m.rows()) out.push_back(r.muted);
    return out;
}

TEST_F(Mutes, SoloMutesTheOthersWithoutSavingItAndEndsAsItBegan) {
    AppModel& m = withRows({"living", "kitchen", "den"});
    m.applyMuted(2, true);
    m.toggleSolo(0);
    EXPECT_TRUE(m.isSoloed(0));
    EXPECT_EQ(m.soloSlot(), 0);
    EXPECT_EQ(muted(m), (std::vector<bool>{false, true, true}));
    EXPECT_FALSE(settings->loadOutput(1).muted);

    // A mute pressed during the solo waits for its end.
    m.toggleMuted(1);
    EXPECT_TRUE(m.rows()[1].muted);
    EXPECT_TRUE(settings->loadOutput(1).muted);

    // Solo moves to another row, then ends there.
    m.toggleSolo(1);
    EXPECT_EQ(muted(m), (std::vector<bool>{true, false, true}));
    m.toggleSolo(1);
    EXPECT_FALSE(m.soloSlot().has_value());
    EXPECT_EQ(muted(m), (std::vector<bool>{false, true, true}));
}

TEST_F(Mutes, ARestartDuringASoloKeepsTheMutesFromBefore) {
    AppModel& m = withRows({"living", "kitchen"});
    m.toggleSolo(1);
    m.setVolume(0, 0.5);  // persists row 0 while it is held muted
    AppModel& again = launch();
    EXPECT_EQ(muted(again), (std::vector<bool>{false, false}));
}

TEST_F(Mutes, RemovingTheSoloedRowGivesTheOthersTheirMutesBack) {
    AppModel& m = withRows({"living", "kitchen", "den"});
    m.applyMuted(1, true);
    m.toggleSolo(2);
    m.removeOutput(2);
    EXPECT_FALSE(m.soloSlot().has_value());
    EXPECT_EQ(muted(m), (std::vector<bool>{false, true}));
    // A row added during a solo is silent until the solo ends.
    m.toggleSolo(0);
    EXPECT_TRUE(m.addOutput("den"));
    EXPECT_TRUE(m.rows()[2].muted);
    m.toggleSolo(0);
    EXPECT_EQ(muted(m), (std::vector<bool>{false, true, false}));
}

TEST_F(Mutes, ForcedMutesComeBackOnlyWhenTheLastHolderLets_go) {
    AppModel& m = withRows({"living", "kitchen"});
    m.applyMuted(1, true);
    int first = 0, second = 0;
    m.beginForcedMutes(&first);
    m.beginForcedMutes(&second);
    m.setMutedWithoutRemembering(0, true);
    m.setMutedWithoutRemembering(1, false);
    m.setVolume(1, 0.7);
    EXPECT_TRUE(settings->loadOutput(1).muted);
    m.endForcedMutes(&first);
    EXPECT_EQ(muted(m), (std::vector<bool>{true, false}));
    m.endForcedMutes(&second);
    EXPECT_EQ(muted(m), (std::vector<bool>{false, true}));
}

TEST_F(Delays, OffsetsBecomeNonNegativeEngineDelaysAndDisabledRowsDoNotSetTheBase) {
    AppModel& m = withRows({"living", "kitchen", "den"});
    m.setDelay(0, -200);
    m.setDelay(2, 100);
    EXPECT_EQ(m.engineDelays(), (std::vector<double>{0, 200, 300}));
    EXPECT_DOUBLE_EQ(engineDelay(2), 300);

    m.toggleDisabled(0);
    EXPECT_EQ(m.engineDelays(), (std::vector<double>{0, 0, 100}));
    EXPECT_DOUBLE_EQ(engineDelay(0), 0);

    // Offsets are held to five seconds either way.
    m.setDelay(1, 9000);
    EXPECT_DOUBLE_EQ(m.rows()[1].delayMs, 5000);
}

TEST_F(Delays, InstantModeLetsTheQuickRowsGoFirstAndHoldsTheSlowOnesTogether) {
    // Latencies found by measurement, as a previous run stored them.
    launch();
    const std::vector<std::pair<std::string, double>> stored = {
        {"living", 0}, {"kitchen", 60}, {"den", 200}, {"speakers", 230}};
    for (int n = 0; n < 4; ++n) {
        settings::OutputSettings s;
        s.deviceUID = stored[n].first;
        s.measuredLatencyMs = stored[n].second;
        s.latencySource = settings::LatencySource::tapped;
        settings->saveOutput(n, s);
    }
    settings->setOutputCount(4);
    AppModel& m = launch();
    EXPECT_EQ(m.engineDelays(), (std::vector<double>{230, 170, 30, 0}));
    EXPECT_EQ(m.heardMs(), (std::vector<double>{230, 230, 230, 230}));

    // Coming from Together every row was in the fast group, so the one 60 ms
    // behind stays in it (it would leave only beyond 80 ms).
    m.setPlaybackMode(delay::PlaybackMode::instant);
    EXPECT_EQ(m.engineDelays(), (std::vector<double>{60, 0, 30, 0}));
    m.setSyncSlowSpeakers(false);
    EXPECT_EQ(m.engineDelays(), (std::vector<double>{60, 0, 0, 0}));
    EXPECT_EQ(settings->playbackMode(), delay::PlaybackMode::instant);
}

TEST_F(Equalisers, BandsPresetsAndCopiesReachEveryRowAndTheDisk) {
    AppModel& m = withRows({"living", "kitchen", "den"});
    equaliser::EQBand lift = m.rows()[0].eq.bands[0];
    lift.gainDb = 6;
    m.setEQBand(equaliser::EQTarget::row(0), 0, lift);
    m.setEQBand(equaliser::EQTarget::row(0), 6, lift);  // no seventh band
    EXPECT_DOUBLE_EQ(m.rows()[0].eq.bands[0].gainDb, 6);
    EXPECT_DOUBLE_EQ(settings->loadOutput(0).eq.bands[0].gainDb, 6);

    m.setEQBand(equaliser::EQTarget::master(), 5, lift);
    EXPECT_DOUBLE_EQ(m.masterEQ().bands[5].gainDb, 6);
    EXPECT_DOUBLE_EQ(settings->masterEQ().bands[5].gainDb, 6);

    const equaliser::EQPreset* bass = equaliser::EQPreset::find("bass");
    ASSERT_NE(bass, nullptr);
    equaliser::EQSettings off = bass->settings;
    off.enabled = false;
    m.setEQ(1, off);
    EXPECT_EQ(m.matchedEQPreset(1), "bass");  // on or off plays no part
    EXPECT_FALSE(m.matchedEQPreset(0).has_value());

    m.copyEQToAllOutputs(1);
    EXPECT_EQ(m.matchedEQPreset(0), "bass");
    EXPECT_EQ(m.matchedEQPreset(2), "bass");
    EXPECT_EQ(settings->loadOutput(2).eq, off);
    EXPECT_FALSE(m.isEQClipping(0));
}

TEST_F(Equalisers, RowSubtitlesSayWhatTheRowPlaysTo) {
    AppModel& m = withRows({"kitchen"});
    EXPECT_EQ(m.meta(m.rows()[0]), "Audio · 44.1 kHz");
    m.setDelay(0, 120.4);
    EXPECT_EQ(m.meta(m.rows()[0]), "Audio · 44.1 kHz · 120 ms");
    RowState empty;
    EXPECT_EQ(m.meta(empty), "Not assigned");
}

}  // namespace
}  // namespace vt::model::test
