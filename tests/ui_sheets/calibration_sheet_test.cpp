// The calibration sheet's controller on the model, on the virtual clock: a
// person tapping along and a person comparing two settings, as the sheet's
// buttons pass them on.
#include "../calibration/fake_room.h"
#include "sheet_fixture.h"
#include "ui/sheets/calibration_controller.h"

namespace vt::ui::test {
namespace {

class CalibrationSheetTest : public SheetTest {
  protected:
    void SetUp() override {
        AppController& app = controllerWithRows({"living", "kitchen", "den"});
        model->enableCalibration(microphone, tones);
        model->startStop();
        settle();
        sheet.setApp(&app);
    }
    // When a sound that went into the engine at `sec` reaches the ear from
    // the row, through its engine delay and a lateness the model never knew.
    double heardAt(int slot, double sec) const {
        return sec + (model->engineDelayMs(slot) + trueLatencyMs[size_t(slot)]) / 1000.0;
    }
    void TearDown() override {
        sheet.cancel();
        SheetTest::TearDown();
    }

    calibration::testing::FakeTones tones{main};
    calibration::NoMicrophone microphone;
    const std::vector<double> trueLatencyMs{30, 85, 10};
    CalibrationSheetController sheet;
};

TEST_F(CalibrationSheetTest, TapsWithAPersonsReactionTimeFindTheDifference) {
    sheet.open(1);
    EXPECT_EQ(sheet.phase(), "choosing");
    EXPECT_EQ(sheet.referenceName(), "Living");
    EXPECT_EQ(sheet.methods().size(), 4);
    sheet.setMethod("tapping");

    // 180 ms after hearing each click, give or take 20, from whichever
    // speaker is not muted.
    calibration::testing::Reaction reaction;
    std::vector<std::unique_ptr<dispatch::TimerHandle>> taps;
    tones.onEmit = [&](const calibration::testing::Emission& click) {
        for (int s = 0; s < int(model->rows().size()); ++s)
            if (!model->rows()[size_t(s)].muted)
                taps.push_back(
                    main.postAfter(heardAt(s, click.startSec) + reaction.nextSec() - main.now(),
                                   [&] { sheet.tap(); }));
    };
    sheet.begin();
    EXPECT_EQ(sheet.playingName(), "Living");
    ASSERT_TRUE(main.advanceUntil([&] { return sheet.phase() == "measuringOutput"; }, 30));
    EXPECT_EQ(sheet.playingName(), "Kitchen");
    EXPECT_EQ(sheet.progressTaps(), 0);
    ASSERT_TRUE(main.advanceUntil([&] { return sheet.phase() == "done"; }, 30));
    sheet.apply();
    EXPECT_EQ(sheet.phase(), "ended");
    EXPECT_NEAR(model->rows()[1].measuredLatencyMs, 55.0, 5.0);
    EXPECT_EQ(model->rows()[1].latencySource, settings::LatencySource::tapped);
}

TEST_F(CalibrationSheetTest, ComparingSettlesWithinTenRounds) {
    sheet.open(1);
    sheet.setReference(2);
    EXPECT_EQ(sheet.referenceName(), "Den");
    sheet.setMethod("narrowing");
    sheet.begin();
    ASSERT_EQ(sheet.phase(), "comparing");
    // The listener hears the setting nearer 75 ms as tighter.
    while (sheet.phase() == "comparing") {
        EXPECT_LE(sheet.round(), 10);
        sheet.playCandidate(0);
        EXPECT_EQ(sheet.playingCandidate(), 0);
        EXPECT_EQ(model->rows()[1].measuredLatencyMs, sheet.candidateA());
        sheet.choose(std::abs(sheet.candidateA() - 75) < std::abs(sheet.candidateB() - 75) ? "a"
                                                                                           : "b");
    }
    ASSERT_EQ(sheet.phase(), "done");
    EXPECT_NEAR(sheet.resultText().chopped(3).toDouble(), 75.0, 2.0);
    // Back offers the methods again with the latency as it was.
    sheet.back();
    EXPECT_EQ(sheet.phase(), "choosing");
    EXPECT_EQ(model->rows()[1].measuredLatencyMs, 0);
}

}  // namespace
}  // namespace vt::ui::test
