// The sync meter's arithmetic on made-up recordings whose answer is known:
// an offset of a fraction of a sample between two sinks of different rates,
// one of which runs fast, and gaps inside a recording and against the capture.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "analysis.h"
#include "clock_fit.h"

namespace vt::syncmeter {
namespace {

// White noise through a short moving-average low-pass: band-limited like the
// noise the measurement plays.
std::vector<float> noise(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> dist(0.0f, 0.3f);
    std::vector<float> raw(n + 4), out(n);
    for (auto& v : raw) v = dist(rng);
    for (size_t i = 0; i < n; ++i) out[i] = (raw[i] + raw[i + 1] + raw[i + 2] + raw[i + 3]) / 4;
    return out;
}

TEST(SyncMeterAnalysis, FindsASubSampleOffsetAcrossRatesAndDrift) {
    const double delayMs = 1.2345;
    std::vector<float> living = noise(48000 * 6, 1);
    Track a{&living, 48000, 100.0, 0};

    // The same sound at 44.1 kHz, heard 1.2345 ms later, from a sink whose
    // clock runs 200 ppm fast and whose recording began 0.7 s later.
    std::vector<float> kitchen(44100 * 5);
    Track b{&kitchen, 44100, 100.7, (1 - 200e-6) / 44100};
    Track source{&living, 48000, 100.0 + delayMs / 1000, 0};
    kitchen = resampleOnto(b, source);

    auto points = measureOffsets(a, b, 5, 0.25);
    ASSERT_EQ(points.size(), 5u);
    for (const auto& p : points) EXPECT_NEAR(p.offsetMs, delayMs, 0.002) << "at " << p.atSec;

    // And the other way round the sign turns.
    auto back = measureOffsets(b, a, 3, 0.25);
    ASSERT_FALSE(back.empty());
    EXPECT_NEAR(back[0].offsetMs, -delayMs, 0.002);
}

TEST(SyncMeterAnalysis, NoCommonSoundGivesNoPoints) {
    std::vector<float> x = noise(48000 * 3, 2), y = noise(48000 * 3, 3);
    std::vector<float> silence(48000 * 3, 0.0f);
    Track a{&x, 48000, 10.0, 0}, b{&y, 48000, 10.0, 0}, s{&silence, 48000, 10.0, 0};
    EXPECT_TRUE(measureOffsets(a, b, 3, 0.25).empty()) << "another sound is no match";
    EXPECT_TRUE(measureOffsets(a, s, 3, 0.25).empty());
}

TEST(SyncMeterAnalysis, DropoutsCountOnlyGapsInsideTheSoundLongerThanTheLimit) {
    std::vector<float> l(48000, 0.5f), r(48000, 0.5f);
    for (size_t i = 0; i < 1000; ++i) l[i] = r[i] = 0;       // before the sound
    for (size_t i = 47000; i < 48000; ++i) l[i] = r[i] = 0;  // after it
    for (size_t i = 10000; i < 10048; ++i) l[i] = r[i] = 0;  // exactly 1 ms: fine
    for (size_t i = 20000; i < 20049; ++i) l[i] = r[i] = 0;  // just over
    for (size_t i = 30000; i < 30960; ++i) l[i] = 0;         // one channel still plays
    for (size_t i = 40000; i < 40480; ++i) l[i] = r[i] = 0;  // 10 ms
    Dropouts d = findDropouts(l, r, 48000, 1.0);
    EXPECT_EQ(d.runs, 2u);
    EXPECT_NEAR(d.longestMs, 10.0, 1e-9);
}

TEST(SyncMeterAnalysis, ASpeakerGapIsJudgedByTheCaptureGapNearIt) {
    // The capture stalled 30 ms at 10 s; a speaker fell silent 34 ms a little
    // later (fine), 36 ms (too long), and 8 ms at 20 s with the capture whole.
    std::vector<Dropout> capture{{10.0, 30.0}, {40.0, 200.0}};
    auto v = judgeGaps({{10.08, 34.0}, {10.02, 36.0}, {20.0, 8.0}}, capture, 0.5, 5.0);
    ASSERT_EQ(v.size(), 3u);
    EXPECT_FALSE(v[0].excessive);
    EXPECT_DOUBLE_EQ(v[0].captureMs, 30.0);
    EXPECT_TRUE(v[1].excessive);
    EXPECT_TRUE(v[2].excessive) << "a capture gap 20 s away excuses nothing";
    EXPECT_DOUBLE_EQ(v[2].captureMs, 0.0);
}

TEST(SyncMeterClock, FitsASinkThatRunsFastAndIgnoresStrayAnswers) {
    std::vector<ClockPoint> pts;
    for (int i = 0; i < 500; ++i) {
        double pos = i * 0.02;
        // Played at 50 + pos * (1 - 200e-6), with 10 us of scatter.
        double played = 50 + pos * (1 - 200e-6) + ((i * 7919) % 21 - 10) * 1e-6;
        pts.push_back({pos, played - pos});
    }
    pts[100].startSec += 0.004;  // a late answer
    pts[300].startSec -= 0.003;
    ClockLine line = fitClock(pts);
    EXPECT_NEAR(line.startSec, 50.0, 5e-6);
    EXPECT_NEAR(line.slope, -200e-6, 2e-6);
    EXPECT_EQ(line.used, 498u);
    EXPECT_LT(line.spreadMs, 0.02);
}

}  // namespace
}  // namespace vt::syncmeter
