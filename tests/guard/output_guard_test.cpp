#include "guard/output_guard.h"

#include <gtest/gtest.h>

#include "dispatch/virtual_main_queue.h"
#include "engine/engine_error.h"
#include "guard_fixture.h"

namespace vt::guard {
namespace {

// Stands in for the model: its rows, its switch, and what it was told.
class OutputGuardTest : public ::testing::Test, public testing::GuardFixture {
  protected:
    GuardHooks hooks() {
        GuardHooks h;
        h.isRunning = [this] { return running; };
        h.hasEnabledRow = [this] { return enabledRows > 0; };
        h.holdNetworkRows = [this] { held = true; };
        h.releaseHeldRows = [this] { held = false; };
        h.startStop = [this] {
            ++startStops;
            if (running) {
                restorer.restore();
                running = false;
                return;
            }
            try {
                restorer.switchToCaptureSink();
                if (engineFails) throw engine::EngineError::soundServer(-1);
                running = true;
            } catch (const engine::EngineError&) {
                restorer.restore();
            }
        };
        h.restored = [this](const RestoredOutput& r) { told.push_back(r); };
        return h;
    }
    void launch(double secondsAgo = 0) {
        guard = std::make_unique<OutputGuard>(queue, restorer, hooks(), queue.now() - secondsAgo);
        guard->start();
    }

    dispatch::VirtualMainQueue queue;
    OutputRestorer restorer{backend, *settings};
    std::unique_ptr<OutputGuard> guard;
    bool running = false, held = false, engineFails = false;
    int enabledRows = 1, startStops = 0;
    std::vector<RestoredOutput> told;
};

TEST_F(OutputGuardTest, ALaunchOnTheCaptureSinkWithARowStartsByItselfWithNetworkRowsHeld) {
    leaveStranded(std::nullopt);
    settings->setLastOutputUID("hdmi");
    launch();
    queue.drain();
    EXPECT_TRUE(running);
    EXPECT_TRUE(held);
    EXPECT_EQ(startStops, 1);
    EXPECT_EQ(restorer.savedDefaultUID(), "hdmi") << "the stale default was repaired";
    queue.advance(30);
    EXPECT_EQ(startStops, 1) << "a running program is left alone";
    EXPECT_TRUE(told.empty());
}

TEST_F(OutputGuardTest, AfterTwentySecondsTheOutputIsHandedBackInsteadWithinTwoSeconds) {
    launch();
    queue.advance(20.5);
    leaveStranded("speakers");
    queue.advance(OutputGuard::intervalSeconds);
    EXPECT_EQ(startStops, 0);
    EXPECT_FALSE(running);
    EXPECT_EQ(backend.defaultSinkName(), "speakers");
    EXPECT_EQ(sinkOf(player), speakers);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0], (RestoredOutput{"Speakers", false}));
    EXPECT_FALSE(settings->pendingRestoreUID());
}

TEST_F(OutputGuardTest, WithNoEnabledRowTheOutputIsHandedBackOnTheFirstPass) {
    enabledRows = 0;
    leaveStranded("hdmi");
    launch();
    queue.drain();
    EXPECT_EQ(startStops, 0);
    EXPECT_EQ(backend.defaultSinkName(), "hdmi");
    EXPECT_EQ(told, (std::vector<RestoredOutput>{{"HDMI Screen", false}}));
}

TEST_F(OutputGuardTest, AnAutomaticStartThatFailsReleasesTheRowsAndLeavesTheOutputGiven) {
    engineFails = true;
    leaveStranded(std::nullopt);
    launch();
    queue.drain();
    EXPECT_FALSE(running);
    EXPECT_FALSE(held);
    EXPECT_EQ(backend.defaultSinkName(), "speakers");
    EXPECT_EQ(sinkOf(player), speakers);
    // The failed start's own restore gave the output back, so nothing was
    // stranded when the guard looked.
    EXPECT_TRUE(told.empty());
    queue.advance(10);
    EXPECT_EQ(startStops, 1) << "nothing is stranded, so nothing is retried";
}

TEST_F(OutputGuardTest, NothingLoopsOnAComputerWithNoOtherOutput) {
    enabledRows = 0;
    leaveStranded(std::nullopt);
    backend.removeSink("speakers");
    backend.removeSink("hdmi");
    launch(60);
    queue.advance(10);
    EXPECT_EQ(backend.defaultSinkName(), "vellatone");
    EXPECT_TRUE(told.empty());
}

TEST_F(OutputGuardTest, AStoppedGuardDoesNothingMore) {
    launch(60);
    queue.drain();
    guard->stop();
    leaveStranded("speakers");
    queue.advance(10);
    EXPECT_EQ(backend.defaultSinkName(), "vellatone");
    guard.reset();
    EXPECT_EQ(queue.pendingTimers(), 0u);
}

}  // namespace
}  // namespace vt::guard
