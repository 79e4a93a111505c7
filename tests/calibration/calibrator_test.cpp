#include "calibration/calibrator.h"

#include <gtest/gtest.h>

#include "fake_room.h"

namespace vt::calibration {
namespace {

using settings::LatencySource;
using Kind = Calibrator::PhaseKind;
using Method = Calibrator::Method;

// Three rows: a reference whose latency the model already knows, the row
// under test (late by more than it reports), and a third that must stay
// silent while the others are measured.
class CalibratorTest : public ::testing::Test {
  protected:
    CalibratorTest() {
        host.rows = {
            {.key = 1,
             .measuredMs = 40,
             .source = LatencySource::heard,
             .engineDelayMs = 60,
             .trueLatencyMs = 40},
            {.key = 2, .delayMs = 15, .reportedMs = 5, .engineDelayMs = 0, .trueLatencyMs = 97.3},
            {.key = 3, .trueLatencyMs = 10, .muted = true},
        };
    }
    std::unique_ptr<Calibrator> open(Method method) {
        auto c = std::make_unique<Calibrator>(host, main, mic, tones, 2, 1);
        c->setMethod(method);
        return c;
    }
    // What the row should store: its true lateness less its own report.
    double truth() const { return host.rows[1].trueLatencyMs - host.rows[1].reportedMs; }

    dispatch::VirtualMainQueue main;
    testing::FakeHost host;
    testing::FakeTones tones{main};
    testing::FakeMicrophone mic{main, host, tones};
};

TEST_F(CalibratorTest, MicrophoneFindsTheRowsLatencyAtEitherRate) {
    for (double rate : {48000.0, 44100.0}) {
        host.rows[1].measuredMs = 0;
        mic.room.micRate = rate;
        // A wall just behind the speaker, louder than the speaker itself.
        mic.room.reflectionMs = 2.5;
        mic.room.reflectionGain = 0.45f;
        auto c = open(Method::microphone);
        c->begin();
        EXPECT_EQ(c->phase().kind, Kind::measuringReference);
        EXPECT_TRUE(
            main.advanceUntil([&] { return c->phase().kind == Kind::measuringOutput; }, 10));
        EXPECT_TRUE(host.rows[0].muted);
        EXPECT_FALSE(host.rows[1].muted);
        EXPECT_TRUE(host.rows[2].muted);
        ASSERT_TRUE(main.advanceUntil([&] { return c->phase().kind == Kind::done; }, 10))
            << c->phase().message;
        EXPECT_NEAR(c->phase().milliseconds, truth(), 0.1) << rate;
        c->apply();
        EXPECT_NEAR(host.rows[1].measuredMs, truth(), 0.1);
        EXPECT_EQ(host.rows[1].source, LatencySource::heard);
        EXPECT_EQ(host.rows[1].delayMs, 0);
        EXPECT_FALSE(host.rows[1].muted);
        EXPECT_TRUE(host.rows[2].muted);
        EXPECT_TRUE(host.forcedHolders.empty());
    }
}

// A stream clock that finds it was off leaves the engine's output gliding
// back to where it belongs; a sweep heard meanwhile is off by as much. A
// sweep that went in with a gap is heard where its second half is.
TEST_F(CalibratorTest, SweepsWaitForTheEngineToStandStillAndAreTakenAgainWhenItMoved) {
    host.rows[0].engineOffMs = 2.0;
    tones.gapSec = 0.030;
    auto settles = main.postAfter(1.0, [&] { host.rows[0].engineOffMs = 0; });
    std::vector<std::unique_ptr<dispatch::TimerHandle>> jolts;
    tones.onEmit = [&](const testing::Emission&) {
        if (tones.emitted.size() != 4) return;  // the row's first sweep
        jolts.push_back(main.postAfter(0.1, [&] { host.rows[1].engineOffMs = 1.5; }));
        jolts.push_back(main.postAfter(0.3, [&] { host.rows[1].engineOffMs = 0; }));
    };
    auto c = open(Method::microphone);
    c->begin();
    ASSERT_TRUE(main.advanceUntil([&] { return c->phase().kind == Kind::done; }, 20))
        << c->phase().message;
    // The reference's sweep in two pieces and again, the row's twice.
    ASSERT_EQ(tones.emitted.size(), 5u);
    EXPECT_GE(tones.emitted[0].startSec, 1.0);
    EXPECT_NEAR(c->phase().milliseconds, truth(), 0.25);
}

TEST_F(CalibratorTest, MicrophoneFailuresSayWhatToDo) {
    struct Case {
        std::function<void()> arrange;
        std::string words;
    };
    const Case cases[] = {
        {[&] { mic.failure = MicOpenError::noInputDevice; },
         "No microphone. Try tapping along instead."},
        {[&] { mic.failure = MicOpenError::openFailed; }, "Could not open the microphone."},
        {[&] { mic.room.directGain = 0, mic.room.reflectionGain = 0, mic.room.noise = 0; },
         "Could not hear the test sound. Turn the speakers up, or move them nearer the "
         "microphone."},
        {[&] { mic.room.reflectionMs = 25, mic.room.reflectionGain = 0.9f; },
         "Mostly heard the room rather than the speaker. Point it at the computer and try again."},
        {[&] { mic.room.directGain = 0, mic.room.reflectionGain = 0; },
         "Could not hear the test sound. Turn the speakers up, or move them nearer the "
         "microphone."},
        // The reference is believed far later than it is.
        {[&] { host.rows[0].measuredMs = 1700; },
         "Heard something 1752 ms out, which is too far to be real. Try again somewhere quieter."},
        {[&] { tones.available = false; }, "Could not start audio for the test sound."},
        // A server that never answers: the window does not wait for it.
        {[&] { tones.answers = false; }, "Could not start audio for the test sound."},
        {[&] { mic.answers = false; }, "Could not open the microphone."},
    };
    for (const Case& test : cases) {
        mic.failure = MicOpenError::none;
        mic.room = {};
        tones.available = true;
        tones.answers = mic.answers = true;
        host.rows[0].measuredMs = 40;
        test.arrange();
        auto c = open(Method::microphone);
        c->begin();
        main.advanceUntil([&] { return c->phase().kind == Kind::failed; }, 12);
        EXPECT_EQ(c->phase().message, test.words);
        c->cancel();
        EXPECT_EQ(host.rows[1].measuredMs, 0);
        EXPECT_EQ(host.rows[1].delayMs, 15);
        EXPECT_TRUE(host.rows[2].muted);
        EXPECT_FALSE(host.rows[0].muted);
    }
}

// A person who hears each click and taps 180 ms later, give or take 20.
TEST_F(CalibratorTest, TappingRecoversTheDifferenceThroughAPersonsReactionTime) {
    testing::Reaction reaction;
    std::vector<std::unique_ptr<dispatch::TimerHandle>> taps;
    std::unique_ptr<Calibrator> c = open(Method::tapping);
    tones.onEmit = [&](const testing::Emission& click) {
        for (const auto& row : host.rows)
            if (!row.muted)
                taps.push_back(main.postAfter(
                    host.heardAt(row, click.startSec) + reaction.nextSec() - main.now(),
                    [&] { c->tap(); }));
    };
    c->tap();  // before any click: nothing to answer
    c->begin();
    EXPECT_EQ(c->progressTaps(), 0);
    ASSERT_TRUE(main.advanceUntil([&] { return c->phase().kind == Kind::measuringOutput; }, 30));
    EXPECT_TRUE(host.rows[0].muted && !host.rows[1].muted && host.rows[2].muted);
    ASSERT_TRUE(main.advanceUntil([&] { return c->phase().kind == Kind::done; }, 30));
    EXPECT_NEAR(c->phase().milliseconds, truth(), 5.0);
    c->apply();
    EXPECT_EQ(host.rows[1].source, LatencySource::tapped);
    const size_t clicks = tones.emitted.size();
    main.advance(3);
    EXPECT_EQ(tones.emitted.size(), clicks) << "the clicks stop with the calibration";
}

TEST_F(CalibratorTest, NarrowingSettlesWithinTenRoundsAndCancelPutsItBack) {
    host.rows[1].measuredMs = 100;
    auto c = open(Method::narrowing);
    c->begin();
    ASSERT_EQ(c->phase().kind, Kind::comparing);
    EXPECT_TRUE(host.forcedHolders.empty()) << "comparing is done with every speaker playing";
    const double heardBest = 161.0;
    while (c->phase().kind == Kind::comparing) {
        c->playCandidate(0);
        const double a = host.rows[1].measuredMs;
        c->playCandidate(1);
        const double b = host.rows[1].measuredMs;
        c->choose(std::abs(a - heardBest) < std::abs(b - heardBest) ? NarrowingSearch::Choice::a
                                                                    : NarrowingSearch::Choice::b);
    }
    ASSERT_EQ(c->phase().kind, Kind::done);
    EXPECT_LE(c->search()->rounds, NarrowingSearch::maximumRounds);
    EXPECT_NEAR(c->phase().milliseconds, heardBest, 2.0);
    c->cancel();
    EXPECT_EQ(host.rows[1].measuredMs, 100);
    EXPECT_EQ(host.rows[1].source, LatencySource::none);
}

TEST_F(CalibratorTest, ReportedTakesOnlyABelievableReportFromALocalSpeaker) {
    struct Case {
        bool network;
        double reportedMs;
        std::optional<double> done;
    };
    for (const Case& test : {Case{false, 2.0, 2.0}, Case{false, 1.9, {}}, Case{false, 1600, {}},
                             Case{true, 200, {}}}) {
        host.rows[1].network = test.network;
        host.rows[1].reportedMs = test.reportedMs;
        auto c = open(Method::reported);
        c->begin();
        if (test.done) {
            EXPECT_EQ(c->phase().kind, Kind::done);
            EXPECT_EQ(c->phase().milliseconds, *test.done);
        } else {
            EXPECT_EQ(c->phase().kind, Kind::failed) << test.reportedMs;
        }
        c->back();
        EXPECT_EQ(c->phase().kind, Kind::choosing);
    }
}

}  // namespace
}  // namespace vt::calibration
