// The stage's arithmetic: where the virtual sources stand, how the speakers
// share them, flight times and directions.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "stage/sound_stage.h"

namespace vt::stage {
namespace {

namespace SS = SoundStage;
constexpr double kPi = std::numbers::pi;

double powerOf(const std::vector<std::vector<double>>& gains) {
    double s = 0;
    for (const auto& g : gains)
        for (double v : g) s += v * v;
    return s;
}

TEST(SoundStageTest, SourcesStandAtTheStageDistanceEachItsWidthOffTheFacing) {
    const Seat seat;
    const auto s = SS::stagePoints(seat, 30);
    EXPECT_NEAR(s.l.x, 2.6 - 1.2, 1e-12);
    EXPECT_NEAR(s.r.x, 2.6 + 1.2, 1e-12);
    EXPECT_NEAR(s.l.y, 3.0 - 2.4 * std::cos(kPi / 6), 1e-12);
    EXPECT_EQ(s.l.y, s.r.y);
    EXPECT_EQ(s.l.z, 1.1);
    // Facing right (towards larger x) puts the left source ahead of the seat.
    const auto turned = SS::stagePoints(Seat{0, 0, 1, kPi / 2}, 90);
    EXPECT_NEAR(turned.l.x, 0, 1e-12);
    EXPECT_NEAR(turned.l.y, -2.4, 1e-12);
    EXPECT_NEAR(turned.r.y, 2.4, 1e-12);
}

TEST(SoundStageTest, RolloffRunsFromThreeToTwelveDecibelsPerDoubling) {
    auto perDoubling = [](double focus) {
        return -20 * std::log10(std::pow(2, -SS::exponent(focus)));
    };
    EXPECT_NEAR(perDoubling(0), 3.0, 1e-3);
    EXPECT_NEAR(perDoubling(1), 12.0, 1e-3);
}

TEST(SoundStageTest, AStereoSpeakersDriversSitAcrossTheLineToTheSeatLeftFirst) {
    const Seat seat{0, 0, 1, 0};
    const auto ahead = SS::drivers(Placed{1, {0, -2, 1}, true}, seat);
    ASSERT_EQ(ahead.size(), 2u);
    EXPECT_NEAR(ahead[0].x, -0.25, 1e-12);
    EXPECT_NEAR(ahead[1].x, 0.25, 1e-12);
    EXPECT_NEAR(ahead[0].y, -2, 1e-12);
    // On the listener's right, its left driver is the one further forward.
    const auto right = SS::drivers(Placed{1, {2, 0, 1}, true}, seat);
    EXPECT_NEAR(right[0].y, -0.25, 1e-12);
    EXPECT_NEAR(right[1].y, 0.25, 1e-12);
    EXPECT_NEAR(right[0].x, 2, 1e-12);
    EXPECT_EQ(SS::drivers(Placed{1, {2, 0, 1}, false}, seat).size(), 1u);
}

TEST(SoundStageTest, EachSourcesPowerIsOneWhereverTheSpeakersStand) {
    const Seat seat;
    const std::vector<Placed> placed{
        {0, {1, 1, 1}, false}, {3, {4, 0.5, 2}, true}, {5, {2.6, 5, 0.3}, false}};
    for (const Point3& src : {Point3{1, 1, 1}, Point3{0, 0, 0}, Point3{9, 9, 9}}) {
        EXPECT_NEAR(powerOf(SS::driverGains(placed, seat, src, 0.62)), 1.0, 1e-12);
    }
    // A source right on a driver stays finite.
    const auto onDriver = SS::driverGains(placed, seat, Point3{1, 1, 1}, 1.0);
    EXPECT_TRUE(std::isfinite(onDriver[0][0]));
    EXPECT_GT(onDriver[0][0], onDriver[2][0]);
    EXPECT_TRUE(SS::driverGains({}, seat, Point3{}, 0.5).empty());
}

TEST(SoundStageTest, OneMonoSpeakerPlaysBothSourcesInFull) {
    const Seat seat;
    const auto m = SS::mixes({Placed{7, {0.4, 0.2, 2.0}, false}}, seat, 30, 0.62);
    ASSERT_EQ(m.size(), 1u);
    const Mix2 mix = m.at(7);
    EXPECT_NEAR(mix.ll, 1.0, 1e-12);
    EXPECT_EQ(mix.ll, mix.rl);
    EXPECT_EQ(mix.ll, mix.lr);
    EXPECT_EQ(mix.rl, mix.rr);
}

TEST(SoundStageTest, SymmetricSpeakersMirrorEachOther) {
    const Seat seat;
    const std::vector<Placed> monos{{0, {1.0, 1.0, 1.1}, false}, {1, {4.2, 1.0, 1.1}, false}};
    const auto m = SS::mixes(monos, seat, 30, 0.62);
    EXPECT_NEAR(m.at(0).ll, m.at(1).rl, 1e-12);
    EXPECT_NEAR(m.at(0).rl, m.at(1).ll, 1e-12);
    EXPECT_GT(m.at(0).ll, m.at(0).rl);  // the left speaker carries more of the left

    // One stereo speaker straight ahead: its left driver takes the left source.
    const auto s = SS::mixes({Placed{2, {2.6, 0.6, 1.1}, true}}, seat, 30, 0.62).at(2);
    EXPECT_GT(s.ll, s.rl);
    EXPECT_GT(s.rr, s.lr);
    EXPECT_NEAR(s.ll, s.rr, 1e-12);
    EXPECT_NEAR(s.rl, s.lr, 1e-12);
    EXPECT_NEAR(s.ll * s.ll + s.lr * s.lr, 1.0, 1e-12);
}

TEST(SoundStageTest, HigherFocusDrawsTheSoundToTheNearestSpeaker) {
    const Seat seat;
    const auto src = SS::stagePoints(seat, 30).l;
    const std::vector<Placed> placed{{0, src, false}, {1, {4.5, 1.0, 1.1}, false}};
    const auto loose = SS::pointGains(placed, src, seat, 0);
    const auto tight = SS::pointGains(placed, src, seat, 1);
    EXPECT_GT(tight.at(0) / tight.at(1), loose.at(0) / loose.at(1));
    EXPECT_NEAR(tight.at(0) * tight.at(0) + tight.at(1) * tight.at(1), 1.0, 1e-12);
}

TEST(SoundStageTest, SoundFliesAtTheSpeedOfSound) {
    const Seat seat{0, 0, 1, 0.3};
    EXPECT_NEAR(SS::flightMs(Point3{0, -3.43, 1}, seat), 10.0, 1e-9);
    EXPECT_NEAR(SS::flightMs(Point3{2.058, 0, 1 + 2.744}, seat), 10.0, 1e-9);
}

TEST(SoundStageTest, PolarIsRelativeToTheFacingAndRoundTrips) {
    const Seat seat{1, 2, 1.2, kPi / 2};
    const auto p = SS::polar(Point3{3, 2, 2.2}, seat);  // straight ahead when facing right
    EXPECT_NEAR(p.bearing, 0, 1e-12);
    EXPECT_NEAR(p.flat, 2, 1e-12);
    EXPECT_NEAR(p.up, 1, 1e-12);
    EXPECT_NEAR(p.dist, std::sqrt(5.0), 1e-12);
    const auto behind = SS::polar(Point3{-1, 2.001, 1.2}, seat);
    EXPECT_LE(std::fabs(behind.bearing), kPi);
    EXPECT_NEAR(std::fabs(behind.bearing), kPi, 1e-3);
    const Point3 q{0.3, 4.5, 0.2};
    const auto pq = SS::polar(q, Seat{2, 2, 1, 5 * kPi});  // facing wound round
    EXPECT_LE(std::fabs(pq.bearing), kPi);
    const Point3 back = SS::fromPolar(pq.bearing, pq.flat, pq.up, Seat{2, 2, 1, 5 * kPi});
    EXPECT_NEAR(back.x, q.x, 1e-9);
    EXPECT_NEAR(back.y, q.y, 1e-9);
    EXPECT_NEAR(back.z, q.z, 1e-12);
}

TEST(SoundStageTest, DirectionsInWords) {
    EXPECT_EQ(SS::whereWord(0), "Straight ahead");
    EXPECT_EQ(SS::whereWord(-11.9), "Straight ahead");
    EXPECT_EQ(SS::whereWord(12), "Front right");
    EXPECT_EQ(SS::whereWord(-12), "Front left");
    EXPECT_EQ(SS::whereWord(67.5), "To your right");
    EXPECT_EQ(SS::whereWord(-112.4), "To your left");
    EXPECT_EQ(SS::whereWord(112.5), "Back right");
    EXPECT_EQ(SS::whereWord(-167.9), "Back left");
    EXPECT_EQ(SS::whereWord(168), "Behind you");
    EXPECT_EQ(SS::whereWord(-180), "Behind you");
}

}  // namespace
}  // namespace vt::stage
