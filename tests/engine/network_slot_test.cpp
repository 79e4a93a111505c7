// Network slots: the pump's ideal timeline, and the audio pulled through it.
#include <gtest/gtest.h>

#include <vector>

#include "engine/pump_timeline.h"
#include "engine_fixture.h"

namespace vt::engine::test {
namespace {

TEST(PumpTimeline, JitterDoesNotMoveTheLine) {
    PumpTimeline t;
    t.reset(44100);
    EXPECT_DOUBLE_EQ(t.advance(100.0, 441), 100.0);
    // Wake-ups early and late by a few ms still get contiguous blocks.
    EXPECT_DOUBLE_EQ(t.advance(100.013, 441), 100.01);
    EXPECT_DOUBLE_EQ(t.advance(100.017, 441), 100.02);
    EXPECT_DOUBLE_EQ(t.advance(100.031, 882), 100.03);
    EXPECT_DOUBLE_EQ(t.advance(100.05, 441), 100.05);
}

TEST(PumpTimeline, StallOfMoreThanHalfASecondReanchors) {
    PumpTimeline t;
    t.reset(48000);
    double now = 50.0;
    for (int i = 0; i < 10; ++i, now += 0.01) t.advance(now, 480);
    // 0.4 s late: still on the line, so the sender catches up.
    EXPECT_DOUBLE_EQ(t.advance(now + 0.4, 480), 50.1);
    // Another 0.51 s behind: a new line starts at the present.
    double late = now + 0.4 + 0.51 + 0.01;
    EXPECT_DOUBLE_EQ(t.advance(late, 480), late);
    EXPECT_DOUBLE_EQ(t.advance(late + 0.01, 480), late + 0.01);
    // A pump that runs ahead by more than that starts over as well.
    EXPECT_DOUBLE_EQ(t.advance(late + 0.0105, 48000 * 2), late + 0.02);
    EXPECT_DOUBLE_EQ(t.advance(late + 0.0205, 480), late + 0.0205);
}

class NetworkSlot : public EngineTest {};

TEST_F(NetworkSlot, PullsTimedAudioAndRecoversFromAStall) {
    engine.start();
    const int slot = 8;
    engine.prepareAirPlaySlot(slot, 44100);
    engine.setVolume(slot, 1.0);
    EXPECT_DOUBLE_EQ(engine.outputRate(slot), 44100);
    const double t0 = pastSec(10);
    pushCapture(t0, 3.0, 0.25f);

    std::vector<float> out(441 * 2);
    double now = t0 + 1.0;
    for (int i = 0; i < 20; ++i, now += 0.01) engine.renderAirPlayAt(slot, out.data(), 441, now);
    EXPECT_EQ(re_engine_timed(engine.ringEngine(), slot), 1);
    EXPECT_EQ(re_engine_primed(engine.ringEngine(), slot), 1);
    EXPECT_NEAR(out.back(), 0.25f, 1e-4);
    ASSERT_TRUE(engine.presentationLeadSeconds(slot));
    EXPECT_NEAR(*engine.presentationLeadSeconds(slot), 4096.0 / 48000.0, 1e-9);

    // After a 0.6 s stall the slot plays on from the present, not in a rush
    // through what it missed.
    now += 0.6;
    engine.renderAirPlayAt(slot, out.data(), 441, now);
    EXPECT_EQ(re_engine_primed(engine.ringEngine(), slot), 1);
    EXPECT_NEAR(engine.telemetry(slot).fillErrMs, 0.0, 0.1);
    engine.renderAirPlayAt(slot, out.data(), 441, now + 0.01);
    EXPECT_NEAR(out.back(), 0.25f, 1e-4);
}

TEST_F(NetworkSlot, LeadIsOnlyKnownForATimedSlotOfARunningEngine) {
    EXPECT_FALSE(engine.presentationLeadSeconds(8));
    engine.start();
    EXPECT_FALSE(engine.presentationLeadSeconds(8)) << "not yet rendered";
    EXPECT_FALSE(engine.presentationLeadSeconds(20));
    EXPECT_FALSE(engine.presentationLeadSeconds(-1));
}

}  // namespace
}  // namespace vt::engine::test
