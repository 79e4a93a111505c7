// The sound server going away under a running model and coming back, on the
// scripted server and virtual time; and the speakers' own volumes kept across
// a crash.
#include <algorithm>

#include "model/notice_words.h"
#include "model_fixture.h"

namespace vt::model::test {
namespace {

using ServerRestart = ModelTest;

std::optional<Notice> noticeOf(AppModel& m, const std::string& id) {
    for (const Notice& n : m.notices())
        if (n.id == id) return n;
    return std::nullopt;
}

TEST_F(ServerRestart, AServerThatComesBackIsTakenAgainAndEveryRowReopens) {
    AppModel& m = withRows({"living", "den"});
    m.startStop();
    settle();
    ASSERT_TRUE(m.rows()[0].connected && m.rows()[1].connected);

    fake.serverDies();
    settle();
    // Said at once, and the switch stays on: nothing the user set is lost.
    EXPECT_TRUE(m.isRunning());
    EXPECT_FALSE(m.soundServerConnected());
    EXPECT_FALSE(m.rows()[0].connected);
    EXPECT_FALSE(m.rows()[1].connected);
    EXPECT_EQ(m.rows().size(), 2u);
    ASSERT_TRUE(noticeOf(m, "driver"));
    EXPECT_EQ(noticeOf(m, "driver")->title, "Waiting for PulseAudio");
    EXPECT_EQ(settings->pendingRestoreUID(), "speakers") << "still owed";

    // Back three seconds later with the same sinks, its own default.
    main.advance(3.0);
    fake.serverReturns();
    fake.setDefaultSinkByUser("living");
    const double back = main.now();
    ASSERT_TRUE(main.advanceUntil(
        [&] { return m.soundServerConnected() && m.rows()[0].connected && m.rows()[1].connected; },
        2.0));
    EXPECT_LE(main.now() - back, 1.0);
    EXPECT_EQ(defaultSink(), "vellatone");
    EXPECT_TRUE(fake.hasCapture());
    EXPECT_EQ(fake.playbackCount("living"), 1u);
    EXPECT_EQ(fake.playbackCount("den"), 1u);
    EXPECT_FALSE(noticeOf(m, "driver"));

    // What is given back is what was taken first, not the restarted default.
    m.startStop();
    settle();
    EXPECT_EQ(defaultSink(), "speakers");
    EXPECT_FALSE(settings->pendingRestoreUID());
}

TEST_F(ServerRestart, AServerThatStaysAwayIsNamedWithItsCommandAndAQuitIsNoCrash) {
    fake.setServerName("PulseAudio (on PipeWire 0.3.65)");
    AppModel& m = withRows({"living"});
    m.startStop();
    settle();
    fake.serverDies();
    main.advance(kServerAwayNoticeSeconds + 1);
    std::optional<Notice> n = noticeOf(m, "driver");
    ASSERT_TRUE(n);
    EXPECT_EQ(n->title, "PipeWire isn’t answering");
    const std::string why = n->why.value_or("");
    EXPECT_NE(why.find("systemctl --user restart pipewire pipewire-pulse wireplumber"),
              std::string::npos)
        << why;
    EXPECT_EQ(m.soundServerStartCommand(),
              "systemctl --user restart pipewire pipewire-pulse wireplumber");
    EXPECT_TRUE(m.isRunning());

    // Quitting now gives nothing back (there is nothing to give it to), and
    // the next launch has no crash to report.
    m.shutDown();
    fake.serverReturns();
    fake.setDefaultSinkByUser("speakers");
    AppModel& again = launch();
    EXPECT_FALSE(again.restoredOutput());
    EXPECT_FALSE(noticeOf(again, "crash"));
    EXPECT_EQ(again.rows().size(), 1u);
}

TEST_F(ServerRestart, SpeakersVolumesAreGivenBackExactlyAfterACrash) {
    fake.setSinkVolumeByUser("living", 0.5);
    fake.setSinkVolumeByUser("den", 0.2);
    AppModel& m = withRows({"living", "den"});
    m.startStop();
    settle();
    EXPECT_NEAR(fake.sinkByName("living")->volumeScalar, 1.0, 1e-9);

    // The run dies: nothing it asks of the server is done any more.
    fake.failWrites(true);
    model.reset();
    fake.failWrites(false);
    EXPECT_NEAR(fake.sinkByName("living")->volumeScalar, 1.0, 1e-9);

    AppModel& again = launch();
    EXPECT_NEAR(fake.sinkByName("living")->volumeScalar, 0.5, 1e-9);
    EXPECT_NEAR(fake.sinkByName("den")->volumeScalar, 0.2, 1e-9);
    EXPECT_TRUE(again.restoredOutput() && again.restoredOutput()->afterCrash);
    EXPECT_TRUE(settings->value(guard::SpeakerVolumes::settingsKey).is_null());

    // And a clean start and stop give the same volumes back again.
    again.startStop();
    settle();
    again.startStop();
    settle();
    EXPECT_NEAR(fake.sinkByName("living")->volumeScalar, 0.5, 1e-9);
    EXPECT_NEAR(fake.sinkByName("den")->volumeScalar, 0.2, 1e-9);
}

}  // namespace
}  // namespace vt::model::test
