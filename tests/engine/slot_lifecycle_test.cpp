// Opening, closing and losing outputs: the decisions the engine makes on the
// main thread around opens that run elsewhere.
#include <gtest/gtest.h>

#include "engine_fixture.h"

namespace vt::engine::test {
namespace {

using P = std::pair<int, bool>;

class SlotLifecycle : public EngineTest {
  protected:
    void SetUp() override {
        fake.addSink("living", "Living", 48000);
        fake.addSink("kitchen", "Kitchen", 44100);
        engine.start();
    }
};

TEST_F(SlotLifecycle, OpenRunsOffTheMainThreadAndCommitsOnIt) {
    engine.setOutputDevice(0, "living");
    EXPECT_TRUE(engine.isOpening(0));
    EXPECT_EQ(work.pending(), 1u);
    EXPECT_EQ(fake.playbackCount("living"), 0u);

    work.runAll();
    EXPECT_EQ(fake.playbackCount("living"), 1u);
    EXPECT_TRUE(states.empty()) << "nothing is decided before the main thread sees it";

    main.drain();
    EXPECT_FALSE(engine.isOpening(0));
    EXPECT_TRUE(engine.isOpen(0));
    EXPECT_EQ(states, (std::vector<P>{{0, true}}));
}

TEST_F(SlotLifecycle, OpenThatGoesStaleIsStoppedWithoutStateCallback) {
    // Closed while in flight.
    engine.setOutputDevice(0, "living");
    engine.setOutputDevice(0, std::nullopt);
    EXPECT_FALSE(engine.isOpening(0));
    settle();
    EXPECT_EQ(fake.playbackCount("living"), 0u);
    EXPECT_FALSE(engine.isOpen(0));

    // Moved to another sink while in flight: only the second open counts.
    engine.setOutputDevice(1, "living");
    engine.setOutputDevice(1, "kitchen");
    settle();
    EXPECT_EQ(fake.playbackCount("living"), 0u);
    EXPECT_EQ(fake.playbackCount("kitchen"), 1u);

    // Stopped while in flight.
    engine.setOutputDevice(2, "living");
    engine.stop();
    settle();
    EXPECT_EQ(fake.playbackCount("living"), 0u);

    // A failure that arrives stale is not reported either.
    engine.start();
    settle();
    states.clear();
    fake.failOpens("kitchen", platform::kFakeErrorRefused);
    engine.setOutputDevice(3, "kitchen");
    engine.setOutputDevice(3, std::nullopt);
    settle();
    EXPECT_TRUE(failures.empty());
    EXPECT_TRUE(states.empty());
}

TEST_F(SlotLifecycle, EngineDestroyedWithAnOpenInFlight) {
    auto engine2 = std::make_unique<MultiOutputEngine>(fake, main, work);
    engine2->start();
    engine2->setOutputDevice(0, "living");
    engine2.reset();
    settle();
    EXPECT_EQ(fake.playbackCount("living"), 0u);
}

TEST_F(SlotLifecycle, FailedOpenReportsAndGivesTheVolumeBack) {
    fake.setSinkVolumeByUser("living", 0.6);
    fake.failOpens("living", platform::kFakeErrorRefused);
    engine.setOutputDevice(0, "living");
    settle();
    EXPECT_FALSE(engine.isOpen(0));
    EXPECT_EQ(failures, (std::vector<std::pair<int, int>>{{0, platform::kFakeErrorRefused}}));
    EXPECT_TRUE(states.empty());
    EXPECT_NEAR(fake.sinkByName("living")->volumeScalar, 0.6, 1e-9);
}

TEST_F(SlotLifecycle, UnknownSinkThrowsAndKeepsTheUid) {
    try {
        engine.setOutputDevice(0, "garage");
        FAIL() << "expected deviceNotFound";
    } catch (const EngineError& e) {
        EXPECT_EQ(e.kind(), EngineError::Kind::deviceNotFound);
        EXPECT_STREQ(e.what(), "deviceNotFound(\"garage\")");
    }
    EXPECT_EQ(engine.outputDeviceUID(0), "garage");
    // The capture sink is never an output.
    EXPECT_THROW(engine.setOutputDevice(1, "vellatone"), EngineError);
}

TEST_F(SlotLifecycle, SinkThatDisappearsClosesAndReopensWhenItReturns) {
    openSlot(0, "living");
    openSlot(1, "kitchen");
    states.clear();

    fake.removeSink("living");
    engine.handleDeviceListChange();
    EXPECT_FALSE(engine.isOpen(0));
    EXPECT_TRUE(engine.isOpen(1));
    EXPECT_EQ(engine.outputDeviceUID(0), "living");
    EXPECT_EQ(states, (std::vector<P>{{0, false}}));

    // Nothing changes while it stays away.
    engine.handleDeviceListChange();
    settle();
    EXPECT_EQ(work.pending(), 0u);

    fake.addSink("living", "Living", 48000);
    engine.handleDeviceListChange();
    EXPECT_TRUE(engine.isOpening(0));
    settle();
    EXPECT_TRUE(engine.isOpen(0));
    EXPECT_EQ(states, (std::vector<P>{{0, false}, {0, true}}));
    EXPECT_EQ(fake.playbackCount("living"), 1u);
}

TEST_F(SlotLifecycle, SinkThatDisappearsWhileOpeningIsClosed) {
    engine.setOutputDevice(0, "living");
    fake.removeSink("living");
    engine.handleDeviceListChange();
    EXPECT_FALSE(engine.isOpening(0));
    settle();
    EXPECT_FALSE(engine.isOpen(0));
    EXPECT_TRUE(failures.empty());
}

TEST_F(SlotLifecycle, StartOpensConfiguredSlotsAndStopClosesThem) {
    engine.stop();
    engine.setOutputDevice(0, "living");
    engine.setOutputDevice(1, "garage");  // missing: stays closed, no throw
    EXPECT_EQ(work.pending(), 0u) << "nothing opens while stopped";
    engine.start();
    settle();
    EXPECT_TRUE(engine.isOpen(0));
    EXPECT_FALSE(engine.isOpen(1));
    engine.stop();
    EXPECT_FALSE(engine.isOpen(0));
    EXPECT_EQ(fake.playbackCount("living"), 0u);
    EXPECT_EQ(engine.outputDeviceUID(0), "living");
}

}  // namespace
}  // namespace vt::engine::test
