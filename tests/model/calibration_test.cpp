// A calibration as the model runs it: which rows can be measured, the mutes
// it forces (never kept), and what a stored latency does to the delays.
#include "../calibration/fake_room.h"
#include "model_fixture.h"

namespace vt::model::test {
namespace {

using Calibration = ModelTest;
using calibration::Calibrator;
using settings::LatencySource;

std::vector<bool> muted(const AppModel& m) {
    std::vector<bool> out;
    for (const RowState& r : m.rows()) out.push_back(r.muted);
    return out;
}

TEST_F(Calibration, NeedsTheProgramRunningAndAnotherRowToHear) {
    AppModel& m = withRows({"living", "kitchen"});
    EXPECT_FALSE(m.canCalibrate(0));
    m.startStop();
    settle();
    EXPECT_TRUE(m.canCalibrate(0));
    EXPECT_EQ(m.calibrationReference(0), 1);
    m.applyMuted(1, true);
    EXPECT_FALSE(m.canCalibrate(0));
    EXPECT_FALSE(m.beginCalibration(0, 1));
}

TEST_F(Calibration, ForcedMutesNeverReachTheStoredRowsAndEndWithTheCalibration) {
    AppModel& m = withRows({"living", "kitchen", "den"});
    calibration::testing::FakeTones tones(main);
    calibration::NoMicrophone microphone;
    m.enableCalibration(microphone, tones);
    m.startStop();
    settle();
    m.applyMuted(2, true);
    Calibrator* c = m.beginCalibration(1, 0);
    ASSERT_TRUE(c);
    c->setMethod(Calibrator::Method::tapping);
    c->begin();
    settle();
    EXPECT_EQ(muted(m), (std::vector<bool>{false, true, true}));
    m.setVolume(1, 0.5);  // keeps the row while it is held muted
    EXPECT_FALSE(settings->loadOutput(1).muted);
    main.advance(2);
    EXPECT_FALSE(tones.emitted.empty());

    // Stopping the program ends the calibration with everything given back.
    m.startStop();
    settle();
    EXPECT_FALSE(m.calibrator());
    EXPECT_EQ(muted(m), (std::vector<bool>{false, false, true}));
    const size_t clicks = tones.emitted.size();
    main.advance(2);
    EXPECT_EQ(tones.emitted.size(), clicks);
}

TEST_F(Calibration, AStoredLatencyIsHeldToTheRowsRangeAndMovesTheDelays) {
    AppModel& m = withRows({"living", "kitchen"});
    m.startStop();
    settle();
    m.setMeasuredLatency(1, -200, LatencySource::heard);
    EXPECT_EQ(m.rows()[1].measuredLatencyMs, 0);
    m.setMeasuredLatency(1, 120, LatencySource::tapped);
    EXPECT_EQ(m.engineDelays(), (std::vector<double>{120, 0}));
    EXPECT_EQ(m.engineDelayMs(0), 120);
    EXPECT_EQ(settings->loadOutput(1).latencySource, LatencySource::tapped);

    // Applying a result zeroes the row's own offset, which it replaces.
    m.setDelay(1, 30);
    Calibrator* c = m.beginCalibration(1, 0);
    ASSERT_TRUE(c);
    c->setMethod(Calibrator::Method::narrowing);
    c->begin();
    while (c->phase().kind == Calibrator::PhaseKind::comparing)
        c->choose(calibration::NarrowingSearch::Choice::a);
    c->apply();
    EXPECT_FALSE(m.calibrator());
    EXPECT_EQ(m.rows()[1].delayMs, 0);
    EXPECT_EQ(m.rows()[1].latencySource, LatencySource::narrowed);
    EXPECT_LT(m.rows()[1].measuredLatencyMs, 120);
}

TEST_F(Calibration, TheMeasureHintIsForAnUnmeasuredBluetoothSpeakerUntilDismissed) {
    fake.addSink("buds", "Buds", 48000, {{"device.bus", "bluetooth"}});
    AppModel& m = withRows({"living", "buds"});
    EXPECT_FALSE(m.showsMeasureHint(1));
    m.startStop();
    settle();
    EXPECT_FALSE(m.showsMeasureHint(0));
    EXPECT_TRUE(m.showsMeasureHint(1));
    m.setMeasuredLatency(1, 150, LatencySource::reported);
    EXPECT_TRUE(m.showsMeasureHint(1));
    m.setMeasuredLatency(1, 150, LatencySource::tapped);
    EXPECT_FALSE(m.showsMeasureHint(1));
    m.setMeasuredLatency(1, 150, LatencySource::none);
    m.applyMuted(0, true);  // nothing left to measure it against
    EXPECT_FALSE(m.showsMeasureHint(1));
    m.applyMuted(0, false);
    m.dismissMeasureHint(1);
    EXPECT_FALSE(m.showsMeasureHint(1));
    EXPECT_TRUE(settings->measureHintDismissed("uid:buds"));
}

}  // namespace
}  // namespace vt::model::test
