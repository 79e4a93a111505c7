// Starting and stopping: the capture sink made or found, and each way a start
// can fail with what the person is told.
#include <gtest/gtest.h>

#include "engine_fixture.h"

namespace vt::engine::test {
namespace {

class Start : public EngineTest {};

TEST_F(Start, MakesTheCaptureSinkAndRemovesItOnStop) {
    engine.start();
    EXPECT_TRUE(engine.isRunning());
    EXPECT_EQ(engine.captureKind(), CaptureKind::input);
    auto sink = fake.sinkByName("vellatone");
    ASSERT_TRUE(sink);
    EXPECT_EQ(sink->description, "Vellatone");
    EXPECT_DOUBLE_EQ(sink->sampleRate, 48000);
    EXPECT_TRUE(fake.hasCapture());
    engine.start();  // a second start changes nothing
    EXPECT_EQ(fake.loadedModules().size(), 1u);

    engine.stop();
    EXPECT_FALSE(engine.isRunning());
    EXPECT_FALSE(fake.hasCapture());
    EXPECT_FALSE(fake.sinkByName("vellatone"));
}

TEST_F(Start, UsesASinkThatIsAlreadyThereAndLeavesIt) {
    fake.addSink("vellatone", "Vellatone", 48000);
    setenv("VELLATONE_CAPTURE", "tap", 1);
    engine.start();
    unsetenv("VELLATONE_CAPTURE");
    EXPECT_EQ(engine.captureKind(), CaptureKind::input) << "there is only the monitor capture";
    EXPECT_TRUE(fake.loadedModules().empty());
    engine.stop();
    EXPECT_TRUE(fake.sinkByName("vellatone"));
}

TEST_F(Start, FailuresThrowWithTheirWords) {
    fake.failLoadModule(true);
    try {
        engine.start();
        FAIL();
    } catch (const EngineError& e) {
        EXPECT_EQ(e.kind(), EngineError::Kind::captureSinkMissing);
        EXPECT_STREQ(e.what(), "captureSinkMissing");
    }
    fake.failLoadModule(false);

    fake.failOpens("vellatone.monitor", platform::kFakeErrorRefused);
    try {
        engine.start();
        FAIL();
    } catch (const EngineError& e) {
        EXPECT_STREQ(e.what(), "soundServer(2)");
    }
    EXPECT_FALSE(fake.sinkByName("vellatone")) << "what start made is taken down again";
    EXPECT_FALSE(engine.isRunning());
    fake.clearOpenFailures();

    fake.addSink("vellatone", "Vellatone", 44100);
    try {
        engine.start();
        FAIL();
    } catch (const EngineError& e) {
        EXPECT_EQ(e.kind(), EngineError::Kind::captureSinkWrongRate);
        EXPECT_STREQ(e.what(), "captureSinkWrongRate(44100.0)");
    }
    EXPECT_FALSE(engine.isRunning());
}

TEST_F(Start, CaptureRateMovingIsReportedNotActedOn) {
    std::vector<double> reported;
    engine.onCaptureRateChanged = [&](double r) { reported.push_back(r); };
    engine.start();
    fake.setSinkRate("vellatone", 44100);
    main.drain();
    EXPECT_EQ(reported, std::vector<double>{44100});
    EXPECT_TRUE(engine.isRunning());
    engine.stop();
    fake.setSinkRate("vellatone", 48000);
    main.drain();
    EXPECT_EQ(reported.size(), 1u) << "no listener is left behind by stop";
}

TEST_F(Start, ScopesAreSilentWhenStoppedAndFollowTheCapture) {
    std::vector<float> env(4, 1.0f);
    engine.fillCaptureEnvelope(env, 0.1);
    EXPECT_EQ(env, std::vector<float>(4, 0.0f));

    engine.start();
    const double t0 = pastSec(5);
    pushCapture(t0, 0.5, 0.5f);
    engine.fillCaptureEnvelope(env, 0.1);
    EXPECT_EQ(env, std::vector<float>(4, 0.5f));
    auto recent = engine.recentSamples(100);
    EXPECT_EQ(recent.endFrame, 24000u);
    EXPECT_EQ(recent.samples, std::vector<float>(100, 0.5f));
    ASSERT_TRUE(engine.hostSeconds(0));
    EXPECT_NEAR(*engine.hostSeconds(0), t0, 1e-6);
}

}  // namespace
}  // namespace vt::engine::test
