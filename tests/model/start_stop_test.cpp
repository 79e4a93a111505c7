// The one switch, and what keeps the system output from being left on the
// capture sink: start and stop, a failed start, the capture-rate restart, the
// guard's auto-resume and hand-back, and the crash note at launch.
#include <algorithm>
#include <fstream>

#include "model_fixture.h"

namespace vt::model::test {
namespace {

using StartStop = ModelTest;

TEST_F(StartStop, StartTakesTheDefaultSinkAndOpensRowsStopGivesItBack) {
    AppModel& m = withRows({"living", "den"});
    m.startStop();
    settle();
    EXPECT_TRUE(m.isRunning());
    EXPECT_EQ(defaultSink(), "vellatone");
    EXPECT_TRUE(fake.hasCapture());
    EXPECT_EQ(settings->pendingRestoreUID(), "speakers");
    EXPECT_TRUE(m.rows()[0].connected);
    EXPECT_TRUE(m.rows()[1].connected);
    EXPECT_TRUE(settings->hasSent());

    main.advance(0.35);  // a few telemetry ticks run without harm
    m.startStop();
    settle();
    EXPECT_FALSE(m.isRunning());
    EXPECT_EQ(defaultSink(), "speakers");
    EXPECT_FALSE(fake.hasCapture());
    EXPECT_FALSE(settings->pendingRestoreUID().has_value());
    EXPECT_FALSE(m.rows()[0].connected);
}

TEST_F(StartStop, AFailedStartLeavesNothingHalfDoneAndSaysSo) {
    AppModel& m = withRows({"living"});
    fake.failLoadModule(true);
    m.startStop();
    settle();
    EXPECT_FALSE(m.isRunning());
    EXPECT_EQ(defaultSink(), "speakers");
    ASSERT_TRUE(m.startError().has_value());
    EXPECT_TRUE(hasNotice("start"));
    EXPECT_TRUE(hasNotice("driver"));  // the server refused to make the capture sink

    fake.failLoadModule(false);
    for (const Notice& n : m.notices())
        if (n.id == "start") m.act(n, NoticeButton::primary);
    settle();
    EXPECT_TRUE(m.isRunning());
    EXPECT_FALSE(hasNotice("start"));
    EXPECT_FALSE(hasNotice("driver"));
}

TEST_F(StartStop, ACaptureRateMovedBySomeoneElseRestartsOnceAtTheRightRate) {
    AppModel& m = withRows({"living"});
    m.startStop();
    settle();
    fake.setSinkRate("vellatone", 44100);
    settle();
    fake.setSinkRate("vellatone", 96000);  // a second notice changes nothing
    settle();
    EXPECT_FALSE(m.isRunning());
    main.advance(0.9);
    EXPECT_FALSE(m.isRunning());
    main.advance(0.2);
    settle();
    EXPECT_TRUE(m.isRunning());
    EXPECT_EQ(fake.sinkByName("vellatone")->sampleRate, 48000);
    EXPECT_EQ(defaultSink(), "vellatone");
    main.advance(3.0);
    EXPECT_TRUE(m.isRunning());
}

TEST_F(StartStop, ShutDownWhileRunningGivesTheOutputBack) {
    AppModel& m = withRows({"living"});
    m.startStop();
    settle();
    m.shutDown();
    EXPECT_FALSE(m.isRunning());
    EXPECT_EQ(defaultSink(), "speakers");
}

TEST_F(StartStop, ALaunchAfterACrashGivesTheOutputBackFirstAndSaysSo) {
    // What a run that died while sending leaves behind: the note of the sink
    // to give back, and the default on the capture sink.
    withRows({"living"});
    settings->setPendingRestoreUID("speakers");
    fake.loadNullSink("vellatone", "Vellatone", 48000, 2, true);
    fake.setDefaultSinkByUser("vellatone");

    AppModel& m = launch();
    EXPECT_EQ(defaultSink(), "speakers");
    EXPECT_FALSE(m.isRunning());
    EXPECT_FALSE(settings->pendingRestoreUID().has_value());
    ASSERT_TRUE(m.restoredOutput().has_value());
    EXPECT_TRUE(m.restoredOutput()->afterCrash);
    ASSERT_TRUE(hasNotice("crash"));
    EXPECT_EQ(m.notices().front().line,
              "Vellatone quit unexpectedly, so the computer’s output was put back as it was.");

    // Turning on from the notice clears it.
    m.act(m.notices().front(), NoticeButton::primary);
    EXPECT_TRUE(m.isRunning());
    EXPECT_FALSE(hasNotice("crash"));
}

TEST_F(StartStop, ADefaultLeftOnTheCaptureSinkResumesEarlyAndIsHandedBackLate) {
    // An earlier run gave the note back but not the sink: the user expects
    // sending to go on.
    withRows({"living"});
    settings::OutputSettings airplay;
    airplay.airplayID = "receiver";
    settings->saveOutput(1, airplay);
    settings->setOutputCount(2);
    fake.loadNullSink("vellatone", "Vellatone", 48000, 2, true);
    fake.setDefaultSinkByUser("vellatone");
    AppModel& m = launch();
    main.advance(0.1);
    EXPECT_TRUE(m.isRunning());
    // Network rows wait for the user's word after such a restart.
    EXPECT_EQ(m.heldSlots(), std::vector<int>{1});
    EXPECT_FALSE(m.rows()[0].heldAfterRestart);

    // Later than 20 s after launch the guard gives it back instead.
    m.startStop();
    settle();
    main.advance(21.0);
    fake.setDefaultSinkByUser("vellatone");
    main.advance(2.1);
    EXPECT_FALSE(m.isRunning());
    EXPECT_EQ(defaultSink(), "speakers");
    ASSERT_TRUE(m.restoredOutput().has_value());
    EXPECT_FALSE(m.restoredOutput()->afterCrash);
    EXPECT_TRUE(hasNotice("crash"));

    // Dismissed, it stays away until the next hand-back.
    for (const Notice& n : m.notices())
        if (n.id == "crash") m.dismissNotice(n);
    EXPECT_FALSE(hasNotice("crash"));
}

}  // namespace
}  // namespace vt::model::test

namespace vt::model::test {
namespace {

TEST_F(StartStop, TheTickWritesTheDriftLogWhileRunningAndClearsTelemetryOnStop) {
    withRows({"living", "den"});
    settings->setDebugLog(true);
    const std::filesystem::path log = dir / "drift.csv";
    model.reset();
    model = std::make_unique<AppModel>(fake, main, work, *settings,
                                       std::make_unique<settings::DebugLogWriter>(log));
    settle();
    model->startStop();
    settle();
    main.advance(0.35);
    model->startStop();
    settle();
    EXPECT_FALSE(model->rows()[0].primed);
    EXPECT_EQ(model->rows()[0].ppm, 0);

    model.reset();  // finishes the log's queue
    std::ifstream in(log);
    std::string line;
    int lines = 0;
    while (std::getline(in, line)) {
        ++lines;
        // The Unix time, then ppm and fill error for each of the two rows.
        EXPECT_EQ(std::count(line.begin(), line.end(), ','), 4) << line;
    }
    EXPECT_EQ(lines, 3);
}

}  // namespace
}  // namespace vt::model::test
