#include "guard/output_restorer.h"

#include <gtest/gtest.h>

#include "engine/engine_error.h"
#include "guard/crash_recovery.h"
#include "guard_fixture.h"

namespace vt::guard {
namespace {

class OutputRestorerTest : public ::testing::Test, public testing::GuardFixture {
  protected:
    OutputRestorer restorer{backend, *settings};
};

TEST_F(OutputRestorerTest, TakingTheOutputMovesOtherProgramsButNeverOurs) {
    restorer.switchToCaptureSink();
    const auto capture = backend.sinkByName("vellatone");
    ASSERT_TRUE(capture) << "the capture sink is made when missing";
    EXPECT_EQ(backend.defaultSinkName(), "vellatone");
    EXPECT_EQ(sinkOf(player), capture->id);
    EXPECT_EQ(sinkOf(video), hdmi) << "routed to the screen on purpose: it stays";
    EXPECT_EQ(sinkOf(ours), speakers);
    EXPECT_EQ(settings->pendingRestoreUID(), "speakers");
    EXPECT_EQ(settings->lastOutputUID(), "speakers");
    EXPECT_NEAR(capture->volumeScalar, 0.6, 1e-9) << "the level carries over";
}

// After a restart the capture sink may be made again before the speaker
// it copied is back: it starts at the system volume it had.
TEST_F(OutputRestorerTest, ACaptureSinkMadeAgainAfterARestartKeepsTheSystemVolume) {
    restorer.switchToCaptureSink();   // the speakers' 0.6
    backend.removeSink("vellatone");  // the server died before the first tick
    backend.removeSink("speakers");   // and came back without our sink or the speaker
    restorer.serverLost();
    restorer.switchToCaptureSink();
    EXPECT_NEAR(backend.sinkByName("vellatone")->volumeScalar, 0.6, 1e-9);

    backend.setSinkVolumeByUser("vellatone", 0.3);  // the volume keys while playing
    restorer.noteSystemVolume();
    backend.removeSink("vellatone");
    restorer.serverLost();
    restorer.switchToCaptureSink();
    EXPECT_NEAR(backend.sinkByName("vellatone")->volumeScalar, 0.3, 1e-9);
    EXPECT_EQ(settings->pendingRestoreUID(), "speakers") << "still owed";
}

TEST_F(OutputRestorerTest, GivingItBackReturnsEveryStreamWhereItCameFrom) {
    restorer.switchToCaptureSink();
    const uint32_t lateComer = addStream(idOf("vellatone"));  // started while we ran
    backend.setSinkVolumeByUser("vellatone", 0.3);            // volume keys while running
    restorer.restore();

    EXPECT_EQ(backend.defaultSinkName(), "speakers");
    EXPECT_EQ(sinkOf(player), speakers);
    EXPECT_EQ(sinkOf(video), hdmi);
    EXPECT_EQ(sinkOf(lateComer), speakers);
    EXPECT_EQ(sinkOf(ours), speakers);
    EXPECT_NEAR(backend.sinkByName("speakers")->volumeScalar, 0.3, 1e-9);
    EXPECT_FALSE(settings->pendingRestoreUID());
    EXPECT_EQ(settings->lastOutputUID(), "speakers");
    EXPECT_FALSE(backend.sinkByName("vellatone")) << "the sink we made goes with us";
    EXPECT_FALSE(restorer.savedDefaultUID());
}

TEST_F(OutputRestorerTest, ACaptureSinkThatWasThereStaysAndTheOutputComesBackTwice) {
    backend.loadNullSink("vellatone", "Vellatone", 48000, 2, true);
    for (int round = 0; round < 2; ++round) {
        restorer.switchToCaptureSink();
        restorer.restore();
        EXPECT_EQ(backend.defaultSinkName(), "speakers");
        EXPECT_EQ(sinkOf(player), speakers);
    }
    EXPECT_TRUE(backend.sinkByName("vellatone"));
}

TEST_F(OutputRestorerTest, ADefaultLeftOnTheCaptureSinkIsRepairedInOrder) {
    struct Case {
        const char* name;
        std::optional<std::string> pending, last;
        std::string expected;
    };
    const Case cases[] = {
        {"pending wins", "hdmi", "speakers", "hdmi"},
        {"a vanished pending falls to the last output", "gone", "hdmi", "hdmi"},
        {"the capture sink is never the answer", "vellatone", "vellatone", "speakers"},
        {"else the first real output", std::nullopt, std::nullopt, "speakers"},
    };
    for (const Case& c : cases) {
        testing::GuardFixture f;
        f.leaveStranded(c.pending);
        f.settings->setLastOutputUID(c.last);
        OutputRestorer r(f.backend, *f.settings);
        r.switchToCaptureSink();
        EXPECT_EQ(r.savedDefaultUID(), c.expected) << c.name;
        EXPECT_EQ(f.settings->pendingRestoreUID(), c.expected) << c.name;
        EXPECT_EQ(f.settings->lastOutputUID(), c.expected) << c.name;
        r.restore();
        EXPECT_EQ(f.backend.defaultSinkName(), c.expected) << c.name;
        EXPECT_EQ(f.sinkOf(f.player), f.idOf(c.expected)) << c.name;
    }
}

TEST_F(OutputRestorerTest, ASavedSinkThatVanishedKeepsThePendingKeyForTheGuard) {
    restorer.switchToCaptureSink();
    backend.removeSink("speakers");
    restorer.restore();
    EXPECT_EQ(settings->pendingRestoreUID(), "speakers");
    EXPECT_EQ(backend.defaultSinkName(), "vellatone");
    EXPECT_EQ(sinkOf(video), hdmi) << "streams whose sink is still there go home";
    ASSERT_TRUE(backend.sinkByName("vellatone")) << "kept until the output has a home";

    EXPECT_EQ(restorer.handBackIfStranded(), "HDMI Screen");
    EXPECT_EQ(backend.defaultSinkName(), "hdmi");
    EXPECT_EQ(sinkOf(player), hdmi);
    EXPECT_FALSE(settings->pendingRestoreUID());
    EXPECT_FALSE(backend.sinkByName("vellatone"));
}

TEST_F(OutputRestorerTest, NoCaptureSinkAndNoneCanBeMadeThrowsAndTouchesNothing) {
    backend.failLoadModule(true);
    try {
        restorer.switchToCaptureSink();
        FAIL() << "expected EngineError";
    } catch (const engine::EngineError& e) {
        EXPECT_EQ(e.kind(), engine::EngineError::Kind::captureSinkMissing);
    }
    EXPECT_EQ(backend.defaultSinkName(), "speakers");
    EXPECT_TRUE(backend.moves().empty());
    EXPECT_FALSE(settings->pendingRestoreUID());
}

TEST_F(OutputRestorerTest, HandBackOnlyActsWhenTheDefaultIsStrandedAndThereIsSomewhereToGo) {
    EXPECT_FALSE(restorer.handBackIfStranded()) << "no capture sink";
    backend.loadNullSink("vellatone", "Vellatone", 48000, 2, true);
    EXPECT_FALSE(restorer.handBackIfStranded()) << "default elsewhere";
    EXPECT_TRUE(backend.defaultSinkWrites().empty());

    leaveStranded("hdmi");
    EXPECT_EQ(restorer.handBackIfStranded(), "HDMI Screen");
    EXPECT_EQ(sinkOf(player), hdmi);
    EXPECT_EQ(sinkOf(video), hdmi);

    // A computer with nothing else to play through: nothing to do, every time.
    testing::GuardFixture lonely;
    lonely.leaveStranded("speakers");
    lonely.backend.removeSink("speakers");
    lonely.backend.removeSink("hdmi");
    lonely.backend.addSink("com.kessor.vellatone.mixer.1", "Mixer");  // private, not a speaker
    OutputRestorer r(lonely.backend, *lonely.settings);
    EXPECT_FALSE(r.handBackIfStranded());
    EXPECT_FALSE(r.handBackIfStranded());
    EXPECT_EQ(lonely.backend.defaultSinkName(), "vellatone");
}

TEST_F(OutputRestorerTest, CrashRecoveryGivesTheOutputAndItsStreamsBack) {
    leaveStranded("speakers");
    EXPECT_EQ(recoverAfterCrash(backend, *settings), (RestoredOutput{"Speakers", true}));
    EXPECT_EQ(backend.defaultSinkName(), "speakers");
    EXPECT_EQ(sinkOf(player), speakers);
    EXPECT_EQ(sinkOf(video), speakers);
    EXPECT_FALSE(settings->pendingRestoreUID());
    EXPECT_FALSE(backend.sinkByName("vellatone")) << "the dead run's sink is cleared away";
    EXPECT_FALSE(recoverAfterCrash(backend, *settings)) << "a clean state needs nothing";
}

TEST_F(OutputRestorerTest, CrashRecoveryWithAVanishedSinkClearsTheKeyAndLeavesTheGuardToIt) {
    leaveStranded("usb-dac");
    const size_t writes = backend.defaultSinkWrites().size();
    EXPECT_FALSE(recoverAfterCrash(backend, *settings));
    EXPECT_FALSE(settings->pendingRestoreUID());
    EXPECT_EQ(backend.defaultSinkWrites().size(), writes);
    EXPECT_EQ(restorer.handBackIfStranded(), "Speakers");
}

}  // namespace
}  // namespace vt::guard
