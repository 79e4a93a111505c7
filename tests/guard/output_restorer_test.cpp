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

// WirePlumber puts back the last volume a sink of that name had, a moment
// after the sink appears and after our copy.
TEST_F(OutputRestorerTest, AStaleVolumeTheServerPutsOnANewCaptureSinkIsUndoneOnce) {
    restorer.switchToCaptureSink();
    restorer.holdCaptureVolume(10.0);
    backend.setSinkVolumeByUser("vellatone", 0.2);  // the server's stored value arrives
    restorer.holdCaptureVolume(10.1);
    EXPECT_NEAR(backend.sinkByName("vellatone")->volumeScalar, 0.6, 1e-9);
    backend.setSinkVolumeByUser("vellatone", 0.4);  // the user's volume keys
    restorer.holdCaptureVolume(10.2);
    EXPECT_NEAR(backend.sinkByName("vellatone")->volumeScalar, 0.4, 1e-9) << "only once";

    // Past the hold, a change is the user's even when it is the first.
    restorer.restore();
    restorer.switchToCaptureSink();
    restorer.holdCaptureVolume(20.0);
    backend.setSinkVolumeByUser("vellatone", 0.2);
    restorer.holdCaptureVolume(20.0 + OutputRestorer::kCaptureVolumeHoldSeconds + 0.1);
    EXPECT_NEAR(backend.sinkByName("vellatone")->volumeScalar, 0.2, 1e-9);

    // A capture sink that was there already is the user's as it is.
    restorer.switchToCaptureSink();
    backend.setSinkVolumeByUser("vellatone", 0.3);
    restorer.holdCaptureVolume(30.0);
    EXPECT_NEAR(backend.sinkByName("vellatone")->volumeScalar, 0.3, 1e-9);
}

// After a restart the capture sink may be made again before the speaker
// it copied is back, and the server's kept volume for it is stale.
TEST_F(OutputRestorerTest, ACaptureSinkMadeAgainAfterARestartKeepsTheSystemVolume) {
    restorer.switchToCaptureSink();
    restorer.holdCaptureVolume(1.0);
    restorer.holdCaptureVolume(1.0 + OutputRestorer::kCaptureVolumeHoldSeconds + 0.1);
    backend.setSinkVolumeByUser("vellatone", 0.3);  // the volume keys while playing
    restorer.holdCaptureVolume(5.0);

    backend.removeSink("vellatone");  // the server died and came back without
    backend.removeSink("speakers");   // our sink, and the speaker not yet
    restorer.serverLost();
    restorer.switchToCaptureSink();
    EXPECT_NEAR(backend.sinkByName("vellatone")->volumeScalar, 0.3, 1e-9);
    restorer.holdCaptureVolume(10.0);
    backend.removeSink("vellatone");  // a tick before the mirror shows it again
    restorer.holdCaptureVolume(10.1);
    backend.loadNullSink("vellatone", "Vellatone", 48000, 2, true);
    backend.setSinkVolumeByUser("vellatone", 0.2);  // the server's kept volume, late
    restorer.holdCaptureVolume(14.0);
    EXPECT_NEAR(backend.sinkByName("vellatone")->volumeScalar, 0.3, 1e-9);
    backend.setSinkVolumeByUser("vellatone", 0.2);  // and once more
    restorer.holdCaptureVolume(15.0);
    EXPECT_NEAR(backend.sinkByName("vellatone")->volumeScalar, 0.3, 1e-9);
    backend.setSinkVolumeByUser("vellatone", 0.5);
    restorer.holdCaptureVolume(10.0 + OutputRestorer::kRestartHoldSeconds + 0.1);
    EXPECT_NEAR(backend.sinkByName("vellatone")->volumeScalar, 0.5, 1e-9) << "the user's, later";
    EXPECT_EQ(settings->pendingRestoreUID(), "speakers") << "still owed";
}

TEST_F(OutputRestorerTest, AServerLostWhileTheNewSinkIsStillHeldKeepsTheSystemVolume) {
    restorer.switchToCaptureSink();  // the speakers' 0.6, held
    restorer.holdCaptureVolume(1.0);
    backend.removeSink("vellatone");
    backend.removeSink("speakers");
    restorer.serverLost();
    restorer.switchToCaptureSink();
    backend.setSinkVolumeByUser("vellatone", 0.2);  // the server's kept volume
    restorer.holdCaptureVolume(2.0);
    EXPECT_NEAR(backend.sinkByName("vellatone")->volumeScalar, 0.6, 1e-9);
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
