// Rows and their slots: adding, removing with renumbering, undo, moving,
// renaming, the limit of eight, and what is kept between runs.
#include "model_fixture.h"

namespace vt::model::test {
namespace {

using Rows = ModelTest;

std::vector<std::string> uids(const AppModel& m) {
    std::vector<std::string> out;
    for (const RowState& r : m.rows()) out.push_back(r.deviceUID.value_or("-"));
    return out;
}

TEST_F(Rows, RemovingARowMovesTheRowsBehindItToNewSlotsWithTheirSettings) {
    AppModel& m = withRows({"living", "kitchen", "den"});
    m.setDelay(2, 100);
    m.setVolume(2, 0.25);
    m.startStop();
    settle();

    m.removeOutput(1);
    settle();
    EXPECT_EQ(uids(m), (std::vector<std::string>{"living", "den"}));
    EXPECT_EQ(m.engine().outputDeviceUID(1), "den");
    EXPECT_FALSE(m.engine().outputDeviceUID(2).has_value());
    EXPECT_TRUE(m.rows()[1].connected);
    EXPECT_DOUBLE_EQ(engineDelay(1), 100);
    EXPECT_DOUBLE_EQ(m.rows()[1].volume, 0.25);
    EXPECT_EQ(settings->outputCount(), 2);
    EXPECT_EQ(settings->loadOutput(1).deviceUID, "den");
    EXPECT_DOUBLE_EQ(settings->loadOutput(1).delayMs, 100);
}

TEST_F(Rows, UndoPutsTheRemovedRowBackAsItWas) {
    AppModel& m = withRows({"living", "kitchen"});
    m.setDelay(0, -40);
    m.rename(0, "Sofa");
    m.removeOutput(0);
    ASSERT_TRUE(m.canUndoRemove());
    EXPECT_EQ(m.lastRemoved()->name, "Sofa");
    m.undoRemove();
    EXPECT_FALSE(m.canUndoRemove());
    ASSERT_EQ(m.rows().size(), 2u);
    const RowState& back = m.rows()[1];
    EXPECT_EQ(back.deviceUID, "living");
    EXPECT_DOUBLE_EQ(back.delayMs, -40);
    EXPECT_EQ(back.shownName(), "Sofa");
    // It comes back in the place it was shown.
    EXPECT_EQ(m.displayRows().front().slot, 1);
}

TEST_F(Rows, TheLastRegularRowStaysAndANinthIsRefused) {
    for (int i = 0; i < 6; ++i) fake.addSink("extra" + std::to_string(i), "Extra");
    AppModel& m = launch();
    EXPECT_TRUE(m.addOutput("living"));
    EXPECT_FALSE(m.canRemove(0));
    m.removeOutput(0);
    EXPECT_EQ(m.rows().size(), 1u);

    EXPECT_FALSE(m.addOutput("living"));  // already has a row
    EXPECT_FALSE(m.addOutput("nowhere"));
    EXPECT_FALSE(m.addOutput("vellatone"));
    for (const char* u : {"kitchen", "den", "speakers"}) EXPECT_TRUE(m.addOutput(u));
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(m.addOutput("extra" + std::to_string(i)));
    EXPECT_EQ(m.regularRowCount(), 8);
    EXPECT_FALSE(m.addOutput("extra4"));

    // Undo is refused while eight rows exist again.
    m.removeOutput(7);
    EXPECT_TRUE(m.canUndoRemove());
    EXPECT_TRUE(m.addOutput("extra5"));
    EXPECT_FALSE(m.canUndoRemove());
}

TEST_F(Rows, MovingChangesTheShownOrderNotTheSlots) {
    AppModel& m = withRows({"living", "kitchen", "den"});
    m.startStop();
    settle();
    const uint64_t opens = fake.opensAttempted();
    m.moveRow(2, 0);
    EXPECT_EQ(uids(m), (std::vector<std::string>{"living", "kitchen", "den"}));
    std::vector<int> shown;
    for (const ShownRow& s : m.displayRows()) shown.push_back(s.slot);
    EXPECT_EQ(shown, (std::vector<int>{2, 0, 1}));
    EXPECT_EQ(fake.opensAttempted(), opens);
    EXPECT_EQ(settings->loadOutput(2).order, 0);

    m.moveRowDragging(0, 2);  // living onto den's place
    shown.clear();
    for (const ShownRow& s : m.displayRows()) shown.push_back(s.slot);
    EXPECT_EQ(shown, (std::vector<int>{0, 2, 1}));
}

TEST_F(Rows, RowsComeBackAfterARestartAndARemovedOutputIsRemembered) {
    AppModel& m = withRows({"living", "kitchen", "den"});
    m.setDelay(2, 100);
    m.setVolume(1, 0.5);
    m.rename(0, "Sofa");
    equaliser::EQSettings eq = equaliser::EQSettings::flat();
    eq.enabled = true;
    eq.bands[1].gainDb = 4;
    m.setEQ(1, eq);
    m.toggleDisabled(0);

    AppModel& again = launch();
    ASSERT_EQ(uids(again), (std::vector<std::string>{"living", "kitchen", "den"}));
    EXPECT_EQ(again.rows()[0].shownName(), "Sofa");
    EXPECT_TRUE(again.rows()[0].disabled);
    EXPECT_DOUBLE_EQ(again.rows()[1].volume, 0.5);
    EXPECT_EQ(again.rows()[1].eq, eq);
    EXPECT_DOUBLE_EQ(again.rows()[2].delayMs, 100);
    EXPECT_DOUBLE_EQ(engineDelay(2), 100);

    // Removed and added again, an output brings back what it had.
    again.removeOutput(2);
    EXPECT_TRUE(again.addOutput("den"));
    EXPECT_DOUBLE_EQ(again.rows()[2].delayMs, 100);

    // Renaming to its own name clears the custom one.
    again.rename(0, "Living");
    EXPECT_FALSE(again.rows()[0].customName.has_value());
    EXPECT_FALSE(settings->customName("uid:living").has_value());
}

TEST_F(Rows, ADeviceThatGoesClosesItsSlotAndReopensWhenItReturns) {
    AppModel& m = withRows({"living", "den"});
    m.startStop();
    settle();
    ASSERT_TRUE(m.rows()[1].connected);
    fake.removeSink("den");
    settle();
    ASSERT_EQ(m.rows().size(), 2u);
    EXPECT_FALSE(m.rows()[1].connected);
    EXPECT_EQ(m.meta(m.rows()[1]), "Not connected");
    EXPECT_TRUE(m.isMissing(m.rows()[1]));

    fake.addSink("den", "Den (new name)", 48000);
    settle();
    EXPECT_TRUE(m.rows()[1].connected);
    EXPECT_EQ(m.rows()[1].deviceName, "Den (new name)");
    EXPECT_EQ(settings->loadOutput(1).deviceName, "Den (new name)");
}

TEST_F(Rows, AFailedOpenRaisesTheRowNoticeAndItsButtonRetries) {
    AppModel& m = withRows({"living", "den"});
    fake.failOpens("den", platform::kFakeErrorRefused);
    m.startStop();
    settle();
    EXPECT_TRUE(m.rows()[1].failedToOpen);
    ASSERT_TRUE(hasNotice("device-failed"));
    EXPECT_EQ(m.noticeSlots("device-failed"), std::vector<int>{1});

    fake.clearOpenFailures();
    for (const Notice& n : m.notices())
        if (n.id == "device-failed") m.act(n, NoticeButton::primary);
    settle();
    EXPECT_TRUE(m.rows()[1].connected);
    EXPECT_FALSE(hasNotice("device-failed"));
}

}  // namespace
}  // namespace vt::model::test
