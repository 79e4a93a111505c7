// The room's rule book: who is on the stage, what each slot plays, flights,
// growing the room, and placing new speakers.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "stage/room_layout.h"
#include "stage/sound_stage.h"

namespace vt::stage {
namespace {

namespace RL = RoomLayout;
constexpr double kPi = std::numbers::pi;

RowPlace at(double x, double y, double z, bool stereo = false) {
    RowPlace p;
    p.at = Point3{x, y, z};
    p.stereo = stereo;
    return p;
}

RoomState enabledRoom() {
    RoomState r;
    r.enabled = true;
    return r;
}

double bearingDeg(const Point3& p, const Seat& s) {
    return SoundStage::polar(p, s).bearing * 180 / kPi;
}

TEST(RoomLayoutTest, OnlyCountedRowsWithAPointAndNoZoneAreStaged) {
    RowPlace zoned = at(1, 1, 1);
    zoned.zone = "Kitchen";
    const RL::Places rows{at(1, 1, 1),       std::nullopt, RowPlace{}, zoned,
                          at(2, 2, 2, true), at(3, 3, 3),  at(4, 4, 4)};
    const std::vector<bool> counted{true, true, true, true, true, false};  // one short
    const auto placed = RL::staged(rows, counted, enabledRoom());
    ASSERT_EQ(placed.size(), 2u);
    EXPECT_EQ(placed[0], (Placed{0, {1, 1, 1}, false}));
    EXPECT_EQ(placed[1], (Placed{4, {2, 2, 2}, true}));
    EXPECT_TRUE(RL::staged(rows, counted, RoomState{}).empty());
}

TEST(RoomLayoutTest, MixesArePlainStereoOffTheStage) {
    const RL::Places rows{at(1, 1, 1.1), at(4.2, 1, 1.1), std::nullopt};
    const std::vector<bool> counted{true, true, true};
    const auto off = RL::mixes(rows, counted, RoomState{}, 4);
    EXPECT_EQ(off, std::vector<Mix2>(4, Mix2::identity()));

    const RoomState room = enabledRoom();
    const auto on = RL::mixes(rows, counted, room, 4);
    const auto stage = SoundStage::mixes(RL::staged(rows, counted, room), room.seat,
                                         room.stageWidthDeg, room.focus);
    EXPECT_EQ(on[0], stage.at(0));
    EXPECT_EQ(on[1], stage.at(1));
    EXPECT_EQ(on[2], Mix2::identity());
    EXPECT_EQ(on[3], Mix2::identity());
    // Fewer slots than rows: the rest are skipped, not written past the end.
    EXPECT_EQ(RL::mixes(rows, counted, room, 1).size(), 1u);
}

TEST(RoomLayoutTest, TestGainsAreZeroOffTheStage) {
    const RL::Places rows{at(1, 1, 1.1), std::nullopt};
    const auto g = RL::testGains(rows, {true, true}, enabledRoom(), Point3{1, 1, 1.1}, 3);
    EXPECT_NEAR(g[0], 1.0, 1e-12);
    EXPECT_EQ(g[1], 0.0);
    EXPECT_EQ(g[2], 0.0);
    EXPECT_EQ(RL::testGains(rows, {true, true}, RoomState{}, Point3{}, 2),
              (std::vector<double>{0, 0}));
}

TEST(RoomLayoutTest, FlightOnlyForCountedRowsOnTheStage) {
    RoomState room = enabledRoom();
    room.seat = Seat{0, 0, 1, 0};
    const RowPlace p = at(0, -3.43, 1);
    EXPECT_NEAR(RL::flightMs(p, true, room), 10.0, 1e-9);
    EXPECT_EQ(RL::flightMs(p, false, room), 0.0);
    EXPECT_EQ(RL::flightMs(std::nullopt, true, room), 0.0);
    EXPECT_EQ(RL::flightMs(RowPlace{}, true, room), 0.0);
    RowPlace zoned = p;
    zoned.zone = "Garage";
    EXPECT_EQ(RL::flightMs(zoned, true, room), 0.0);
    room.enabled = false;
    EXPECT_EQ(RL::flightMs(p, true, room), 0.0);
}

TEST(RoomLayoutTest, SettlingAndMovingOntoARing) {
    EXPECT_EQ(RL::settled(Point3{1, 2, -1}).z, 0.05);
    EXPECT_EQ(RL::settled(Point3{1, 2, 0.7}).z, 0.7);
    const Seat seat{2, 3, 1, 0.4};
    const Point3 p{0.5, 1.0, 2.0};
    const Point3 q = RL::onRing(p, 4.0, seat);
    EXPECT_NEAR(SoundStage::polar(q, seat).dist, 4.0, 1e-9);
    EXPECT_NEAR(SoundStage::polar(q, seat).bearing, SoundStage::polar(p, seat).bearing, 1e-9);
    EXPECT_NEAR(q.z, 2.0, 1e-12);
    // Closer than the height difference: straight above, on the floor plan at the seat.
    const Point3 r = RL::onRing(Point3{2, 1, 3}, 0.5, seat);
    EXPECT_NEAR(r.x, 2, 1e-12);
    EXPECT_NEAR(r.y, 3, 1e-12);
}

TEST(RoomLayoutTest, TheRoomGrowsToTheTenthAndNeverShrinks) {
    const RoomState room;  // 5.2 x 4.4 x 2.6
    EXPECT_EQ(RL::grown(room, {}), room);
    EXPECT_EQ(RL::grown(room, {Point3{1, 1, 1}}), room);
    const RoomState g = RL::grown(room, {Point3{5.25, 4.1, 2.4}, Point3{0, 6.0, 0}});
    EXPECT_DOUBLE_EQ(g.width, 5.6);
    EXPECT_DOUBLE_EQ(g.depth, 6.3);
    EXPECT_DOUBLE_EQ(g.height, 2.7);
    // 4.9 + 0.3 is 5.2 even though the sum rounds a hair above it.
    EXPECT_EQ(RL::grown(room, {Point3{4.9, 0, 0}}).width, 5.2);
    const RoomState big = RL::grown(g, {Point3{0.1, 0.1, 0.1}});
    EXPECT_EQ(big, g);
}

TEST(RoomLayoutTest, TheBoxReachesPointsBeforeTheWalls) {
    const RoomState room;
    const RL::Box inside = RL::box(room, {Point3{1, 1, 1}});
    EXPECT_EQ(inside, (RL::Box{0, 0, 5.2, 4.4, 2.6}));
    const RL::Box outside = RL::box(room, {Point3{-0.5, 1, 1}, Point3{1, 5.0, 1}});
    EXPECT_DOUBLE_EQ(outside.x0, -0.8);
    EXPECT_EQ(outside.y0, 0.0);
    EXPECT_DOUBLE_EQ(outside.width, 6.0);
    EXPECT_DOUBLE_EQ(outside.depth, 5.3);
}

TEST(RoomLayoutTest, ArrangeSpreadsAnArcAroundTheSeat) {
    const Seat seat{2, 3, 1.2, 0};
    EXPECT_TRUE(RL::arrange({}, 4, seat).empty());
    const auto three = RL::arrange({4, 5, 6}, std::nullopt, seat);
    ASSERT_EQ(three.size(), 3u);
    EXPECT_NEAR(bearingDeg(three[0].second, seat), -30, 1e-9);
    EXPECT_NEAR(bearingDeg(three[1].second, seat), 0, 1e-9);
    EXPECT_NEAR(bearingDeg(three[2].second, seat), 30, 1e-9);
    for (const auto& [id, p] : three) {
        EXPECT_NEAR(SoundStage::polar(p, seat).dist, 2.4, 1e-12);
        EXPECT_EQ(p.z, 1.2);
    }
    const auto six = RL::arrange({0, 1, 2, 3, 4, 5}, std::nullopt, seat);
    EXPECT_NEAR(bearingDeg(six[1].second, seat) - bearingDeg(six[0].second, seat), 15, 1e-9);
    EXPECT_NEAR(bearingDeg(six[2].second, seat), 0, 1e-9);  // middle index (6 - 1) / 2 = 2
    EXPECT_NEAR(bearingDeg(RL::arrange({9}, std::nullopt, seat)[0].second, seat), 0, 1e-12);
}

TEST(RoomLayoutTest, ArrangePutsAMissingCentreInTheMiddle) {
    const Seat seat{2, 3, 1.2, 0.5};
    const auto a = RL::arrange({1, 2, 3, 4}, 9, seat);
    ASSERT_EQ(a.size(), 5u);
    EXPECT_EQ(a[2].first, 9);
    EXPECT_EQ(a[3].first, 3);
    EXPECT_NEAR(bearingDeg(a[2].second, seat), 0, 1e-9);
    EXPECT_NEAR(bearingDeg(a[0].second, seat), -37.5, 1e-9);
    // A centre already among the ids leaves the order as it is.
    const auto b = RL::arrange({1, 9, 3}, 9, seat);
    EXPECT_EQ(b[0].first, 1);
    EXPECT_EQ(b[1].first, 9);
}

TEST(RoomLayoutTest, SidesWalkOutFromTheFront) {
    EXPECT_EQ(RL::sides(30), (std::vector<double>{0, 30, -30, 60, -60, 75, -75}));
    const auto fine = RL::sides(5);
    EXPECT_EQ(fine.size(), 31u);
    EXPECT_EQ(fine[fine.size() - 3], -70);
    EXPECT_EQ(fine.back(), -75);
}

TEST(RoomLayoutTest, InFrontFindsTheFirstClearSpot) {
    const Seat seat;
    const auto first = RL::inFront("Speaker", {}, seat);
    ASSERT_TRUE(first);
    EXPECT_NEAR(bearingDeg(*first, seat), 0, 1e-9);
    EXPECT_NEAR(SoundStage::polar(*first, seat).dist, 2.4, 1e-12);
    const auto second = RL::inFront("Speaker", {*first}, seat);
    EXPECT_NEAR(bearingDeg(*second, seat), 30, 1e-9);
    EXPECT_EQ(RL::inFront("Kitchen speaker", {}, seat), std::nullopt);

    // Exactly the clearance away is clear enough.
    const Point3 ahead = *first;
    const Point3 clearBehind{ahead.x, ahead.y + 0.6, ahead.z};
    EXPECT_NEAR(bearingDeg(*RL::inFront("x", {clearBehind}, seat), seat), 0, 1e-9);
}

TEST(RoomLayoutTest, InFrontFallsBackToTheRoomiestSpot) {
    const Seat seat;
    std::vector<Point3> taken;
    for (double a : RL::sides(30)) {
        taken.push_back(SoundStage::fromPolar(a * kPi / 180, 2.4, 0, seat));
    }
    const auto p = RL::inFront("Speaker", taken, seat);
    ASSERT_TRUE(p);
    // Halfway between two 30-degree neighbours is the roomiest place left
    // (15 and 45 degrees tie up to rounding).
    const double b = std::fabs(bearingDeg(*p, seat));
    EXPECT_NEAR(std::fmod(b, 30.0), 15, 1e-9) << b;
    EXPECT_LT(b, 60);
}

TEST(RoomLayoutTest, InFrontForSeveralRowsKeepsThemApart) {
    const Seat seat;
    const auto placed = RL::inFront({{3, "Den"}, {4, "Patio left"}, {5, "Sofa"}}, {}, seat);
    ASSERT_EQ(placed.size(), 2u);
    EXPECT_EQ(placed[0].first, 3);
    EXPECT_EQ(placed[1].first, 5);
    EXPECT_NEAR(bearingDeg(placed[1].second, seat), 30, 1e-9);
}

TEST(RoomLayoutTest, OtherRoomsAreNamedWordsOnly) {
    EXPECT_EQ(RL::other("Kitchen speaker"), "Kitchen");
    EXPECT_EQ(RL::other("my OFFICE"), "Office");
    EXPECT_EQ(RL::other("Upstairs hallway"), "Hallway");
    EXPECT_EQ(RL::other("Bedroom-2"), "Bedroom");
    EXPECT_EQ(RL::other("Halloween party"), std::nullopt);
    EXPECT_EQ(RL::other("Living room"), std::nullopt);
    EXPECT_EQ(RL::other(""), std::nullopt);
}

TEST(RoomLayoutTest, WhichSpeakersStartAsStereo) {
    EXPECT_TRUE(RL::playsStereo("Built-in", false, "", ""));
    EXPECT_TRUE(RL::playsStereo("USB", true, "", ""));
    EXPECT_TRUE(RL::playsStereo("AirPlay", false, "Den", "AppleTV11,1"));
    EXPECT_TRUE(RL::playsStereo("AirPlay", false, "Living Room TV", "Roku"));
    EXPECT_TRUE(RL::playsStereo("AirPlay", false, "Samsung Television", ""));
    EXPECT_FALSE(RL::playsStereo("AirPlay", false, "Kitchen HomePod", "AudioAccessory5,1"));
    EXPECT_FALSE(RL::playsStereo("AirPlay", false, "Bathtvradio", ""));
    EXPECT_FALSE(RL::playsStereo("USB", false, "", ""));
}

}  // namespace
}  // namespace vt::stage
