// The equaliser sheet's controller: each control lands in the model's
// operations (and so in the engine and the settings file), drags are handed
// on as one change, and the sheet follows changes made elsewhere.
#include <QMouseEvent>
#include <QSignalSpy>
#include <cmath>

#include "equaliser/eq_preset.h"
#include "sheet_fixture.h"
#include "ui/sheets/eq_graph.h"
#include "ui/sheets/eq_sheet_controller.h"

namespace vt::ui::test {
namespace {

using equaliser::EQKind;
using equaliser::EQPreset;
using equaliser::EQSettings;
using equaliser::EQTarget;

class EqSheetTest : public SheetTest {
  protected:
    void SetUp() override {
        controllerWithRows({"speakers", "living", "kitchen"});
        sheet.setApp(app.get());
    }
    EQSettings rowEQ(int slot) { return model->eq(EQTarget::row(size_t(slot))); }

    EqualiserSheetController sheet;
};

int presetIndex(const char* id) {
    const auto& all = EQPreset::all();
    for (size_t i = 0; i < all.size(); ++i)
        if (all[i].id == id) return int(i);
    return -1;
}

TEST_F(EqSheetTest, ABandEditShowsAtOnceAndReachesTheModelAsOneChange) {
    sheet.setSlot(1);
    ASSERT_TRUE(sheet.valid());
    EXPECT_EQ(sheet.title().toStdString(), "Equaliser \u00b7 " + model->rows()[1].shownName());
    QSignalSpy shown(&sheet, &EqualiserSheetController::settingsChanged);

    // A drag: several steps before the model hears of it.
    sheet.setBandGainDb(2, 3.0);
    sheet.setBandGainDb(2, 4.5);
    sheet.setBandFrequency(2, 700.0);
    EXPECT_GE(shown.count(), 3);
    EXPECT_EQ(sheet.shown().bands[2].gainDb, 4.5);
    EXPECT_TRUE(sheet.hasPendingEdits());
    EXPECT_EQ(rowEQ(1).bands[2].gainDb, 0.0);

    sheet.commit();
    const EQSettings stored = rowEQ(1);
    EXPECT_EQ(stored.bands[2].gainDb, 4.5);
    EXPECT_EQ(stored.bands[2].frequency, 700.0);
    // Shaping the sound switches the equaliser on, or the edit would be mute.
    EXPECT_TRUE(stored.enabled);
    EXPECT_FALSE(sheet.hasPendingEdits());
    EXPECT_EQ(rowEQ(0), EQSettings::flat());

    // Remembered: a new model on the same settings file has it.
    launch();
    EXPECT_EQ(rowEQ(1).bands[2].gainDb, 4.5);
}

TEST_F(EqSheetTest, ValuesAreClampedAndKindsWithoutGainSayWhatTheyUse) {
    sheet.setSlot(0);
    sheet.setBandGainDb(0, 60);
    sheet.setBandQ(0, 0);
    sheet.setBandFrequency(0, 5);
    sheet.setBandKind(1, int(equaliser::index(EQKind::lowPass)));
    sheet.commit();
    const EQSettings stored = rowEQ(0);
    EXPECT_EQ(stored.bands[0].gainDb, 24.0);
    EXPECT_EQ(stored.bands[0].q, 0.1);
    EXPECT_EQ(stored.bands[0].frequency, 20.0);
    EXPECT_EQ(stored.bands[1].kind, EQKind::lowPass);

    const QVariantMap lowPass = sheet.bands()[1].toMap();
    EXPECT_FALSE(lowPass["usesGain"].toBool());
    EXPECT_TRUE(lowPass["usesQ"].toBool());
    EXPECT_EQ(lowPass["frequencyLabel"].toString(), "Corner");

    // Out of range bands and kinds are ignored.
    sheet.setBandGainDb(6, 3);
    sheet.setBandKind(0, 8);
    sheet.setBandKind(0, -1);
    EXPECT_FALSE(sheet.hasPendingEdits());
}

TEST_F(EqSheetTest, PresetsApplyAndTheMatchFollowsEdits) {
    sheet.setSlot(2);
    EXPECT_EQ(sheet.presetNames().size(), int(EQPreset::all().size()));
    const int bass = presetIndex("bass");
    sheet.applyPreset(bass);
    EXPECT_EQ(rowEQ(2), EQPreset::find("bass")->settings);
    EXPECT_EQ(sheet.matchedPreset(), bass);
    EXPECT_EQ(sheet.preampDb(), -6.0);

    sheet.setBandGainDb(0, 5.0);
    EXPECT_EQ(sheet.matchedPreset(), -1);
    sheet.setBandGainDb(0, 6.0);
    EXPECT_EQ(sheet.matchedPreset(), bass);
    sheet.commit();
    EXPECT_EQ(model->matchedEQPreset(2), std::optional<std::string>("bass"));
}

TEST_F(EqSheetTest, SwitchingOffKeepsTheShapeOnTheCurve) {
    sheet.setSlot(0);
    sheet.applyPreset(presetIndex("night"));
    const double lifted = sheet.curveDb(40);
    EXPECT_GT(std::abs(lifted), 0.1);
    sheet.setEqEnabled(false);
    EXPECT_FALSE(rowEQ(0).enabled);
    EXPECT_EQ(rowEQ(0).responseDb(40, 48000), 0.0);
    EXPECT_DOUBLE_EQ(sheet.curveDb(40), lifted);
}

TEST_F(EqSheetTest, MasterEditsTheSharedEqualiserAndCannotCopy) {
    sheet.setSlot(-1);
    EXPECT_TRUE(sheet.isMaster());
    EXPECT_EQ(sheet.title(), "Master equaliser");
    EXPECT_FALSE(sheet.canCopyToAll());
    sheet.setPreampDb(-3);
    sheet.setBandKind(5, int(equaliser::index(EQKind::highShelf)));
    sheet.setBandGainDb(5, 2);
    sheet.commit();
    EXPECT_EQ(model->masterEQ().preampDb, -3.0);
    EXPECT_EQ(model->masterEQ().bands[5].gainDb, 2.0);
    EXPECT_EQ(rowEQ(0), EQSettings::flat());
    sheet.copyToAll();
    EXPECT_EQ(rowEQ(0), EQSettings::flat());

    launch();
    EXPECT_EQ(model->masterEQ().preampDb, -3.0);
}

TEST_F(EqSheetTest, CopyToAllGivesEveryOtherRowTheSameEqualiser) {
    sheet.setSlot(1);
    EXPECT_TRUE(sheet.canCopyToAll());
    sheet.applyPreset(presetIndex("voice"));
    sheet.setBandGainDb(3, 5.0);  // pending edits go along
    sheet.copyToAll();
    for (int slot = 0; slot < 3; ++slot) EXPECT_EQ(rowEQ(slot), rowEQ(1)) << slot;
    EXPECT_EQ(rowEQ(0).bands[3].gainDb, 5.0);
}

TEST_F(EqSheetTest, FollowsChangesMadeElsewhereButKeepsItsOwnPendingEdit) {
    sheet.setSlot(0);
    EQSettings other = EQPreset::find("warm")->settings;
    model->setEQ(0, other);
    emit app->changed();
    EXPECT_EQ(sheet.shown(), other);

    sheet.setBandGainDb(1, -4.0);
    model->setEQ(0, EQPreset::find("bright")->settings);
    emit app->changed();
    EXPECT_EQ(sheet.shown().bands[1].gainDb, -4.0);
}

TEST_F(EqSheetTest, ARowThatGoesLeavesTheSheetInvalidAndInert) {
    sheet.setSlot(2);
    QSignalSpy shown(&sheet, &EqualiserSheetController::settingsChanged);
    model->removeOutput(2);
    settle();
    emit app->changed();
    EXPECT_FALSE(sheet.valid());
    EXPECT_GE(shown.count(), 1);
    sheet.setBandGainDb(0, 3);
    sheet.applyPreset(0);
    sheet.copyToAll();
    EXPECT_FALSE(sheet.hasPendingEdits());
    EXPECT_EQ(rowEQ(0), EQSettings::flat());
}

TEST_F(EqSheetTest, TheSheetStaysWithItsRowWhenRowsRenumber) {
    sheet.setSlot(1);
    const model::RowId living = model->rows()[1].id;
    sheet.setBandGainDb(1, 5.0);
    // The row above goes while an edit is still on its way: "kitchen" now
    // has slot 1, and the edit must not land there.
    model->removeOutput(0);
    settle();
    sheet.commit();
    emit app->changed();
    ASSERT_TRUE(sheet.valid());
    EXPECT_EQ(sheet.slot(), 0);
    EXPECT_EQ(model->rows()[0].id, living);
    EXPECT_EQ(rowEQ(0).bands[1].gainDb, 5.0);
    EXPECT_EQ(rowEQ(1), EQSettings::flat());
    // Once its row is gone the sheet stays inert, although slot 0 still exists.
    model->removeOutput(0);
    settle();
    emit app->changed();
    EXPECT_FALSE(sheet.valid());
    sheet.setBandGainDb(0, 3);
    sheet.commit();
    EXPECT_EQ(rowEQ(0), EQSettings::flat());
}

TEST_F(EqSheetTest, AnUnchangedRefreshIsQuiet) {
    sheet.setSlot(0);
    QSignalSpy shown(&sheet, &EqualiserSheetController::settingsChanged);
    for (int i = 0; i < 5; ++i) emit app->changed();
    EXPECT_EQ(shown.count(), 0);
}

TEST_F(EqSheetTest, TheFlushTimerHandsADragOnWithoutACommit) {
    sheet.setSlot(0);
    sheet.setBandGainDb(4, 2.5);
    QElapsedTimer waited;
    waited.start();
    while (sheet.hasPendingEdits() && waited.elapsed() < 2000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
    EXPECT_EQ(rowEQ(0).bands[4].gainDb, 2.5);
}

}  // namespace
}  // namespace vt::ui::test

namespace vt::ui::test {
namespace {

class EqGraphTest : public EqSheetTest {
  protected:
    void send(QEvent::Type type, QPointF at) {
        QMouseEvent event(type, at, at, at, Qt::LeftButton,
                          type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::LeftButton,
                          Qt::NoModifier);
        QCoreApplication::sendEvent(&graph, &event);
    }

    EqGraph graph;
};

TEST_F(EqGraphTest, DraggingAHandleMovesItsBandAndReleasingHandsItOn) {
    sheet.setSlot(0);
    graph.setSize(QSizeF(600, 240));
    graph.setController(&sheet);
    const EqGraphScale scale{600, 240};

    // Band 3 (index 2) of the flat bands: a peak at 650 Hz, 0 dB.
    const QPointF handle = graph.handlePosition(2);
    EXPECT_NEAR(handle.x(), scale.x(650), 1e-9);
    EXPECT_NEAR(handle.y(), 120, 1e-9);
    EXPECT_EQ(graph.bandAt(handle + QPointF(5, -5)), 2);
    EXPECT_EQ(graph.bandAt(QPointF(scale.x(650), 10)), std::nullopt);

    send(QEvent::MouseButtonPress, handle + QPointF(3, 2));
    EXPECT_EQ(graph.activeBand(), 2);
    send(QEvent::MouseMove, QPointF(scale.x(2000), scale.y(6.2)));
    EXPECT_NEAR(sheet.shown().bands[2].frequency, 2000, 1);
    EXPECT_EQ(sheet.shown().bands[2].gainDb, 6.0);  // to the half decibel
    send(QEvent::MouseButtonRelease, QPointF(scale.x(2000), scale.y(6.2)));
    EXPECT_EQ(graph.activeBand(), -1);
    EXPECT_FALSE(sheet.hasPendingEdits());
    EXPECT_NEAR(rowEQ(0).bands[2].frequency, 2000, 1);
    EXPECT_EQ(rowEQ(0).bands[2].gainDb, 6.0);
    EXPECT_TRUE(rowEQ(0).enabled);

    // A kind without gain moves only sideways; its handle stays on 0 dB.
    sheet.setBandKind(0, int(equaliser::index(EQKind::highPass)));
    const QPointF corner = graph.handlePosition(0);
    EXPECT_NEAR(corner.y(), 120, 1e-9);
    send(QEvent::MouseButtonPress, corner);
    send(QEvent::MouseMove, QPointF(scale.x(150), 10));
    send(QEvent::MouseButtonRelease, QPointF(scale.x(150), 10));
    EXPECT_NEAR(rowEQ(0).bands[0].frequency, 150, 0.5);
    EXPECT_EQ(rowEQ(0).bands[0].gainDb, 0.0);
}

TEST_F(EqGraphTest, AwayFromEveryHandleNothingMovesAndOffBandsHaveNone) {
    sheet.setSlot(0);
    sheet.setBandKind(3, int(equaliser::index(EQKind::off)));
    graph.setSize(QSizeF(600, 240));
    graph.setController(&sheet);
    EXPECT_EQ(graph.bandAt(graph.handlePosition(3)), std::nullopt);
    const EQSettings before = rowEQ(0);
    send(QEvent::MouseButtonPress, QPointF(5, 5));
    send(QEvent::MouseMove, QPointF(300, 200));
    send(QEvent::MouseButtonRelease, QPointF(300, 200));
    EXPECT_EQ(graph.activeBand(), -1);
    EXPECT_EQ(rowEQ(0), before);

    // The axes map both ways.
    const EqGraphScale scale{600, 240};
    EXPECT_NEAR(scale.hz(scale.x(1234)), 1234, 1e-6);
    EXPECT_NEAR(scale.db(scale.y(-7.5)), -7.5, 1e-9);
    EXPECT_EQ(scale.x(5), 0);
    EXPECT_EQ(scale.y(60), 0);
}

}  // namespace
}  // namespace vt::ui::test
