// The room's values as they are stored and sent to the phone.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "stage/room_layout.h"
#include "stage/room_types.h"

#include <cmath>

namespace vt::stage {
namespace {

using nlohmann::json;

TEST(RoomTypesTest, RoomRoundTripsAndReadingFallsBackFieldByField) {
    RoomState r;
    r.enabled = true;
    r.seat = Seat{1, 2, 3, 0.5};
    r.flying = Point3{1, 1, 1};
    const json j = r;
    EXPECT_EQ(j["seat"], json::parse(R"({"x":1.0,"y":2.0,"z":3.0,"face":0.5})"));
    EXPECT_EQ(json::parse(j.dump()).get<RoomState>(), r);
    EXPECT_FALSE(json(RoomState{}).contains("flying"));

    EXPECT_EQ(json(42).get<RoomState>(), RoomState::initial());
    const auto bad = json::parse(R"({"enabled":"yes","seat":{"x":1},"focus":0.3,
                                     "width":null,"flying":[1,2,3]})")
                         .get<RoomState>();
    RoomState expected;
    expected.seat.x = 1;  // the rest of the seat stays where it starts: 3.0, 1.1, 0
    expected.focus = 0.3;
    EXPECT_EQ(bad, expected);
}

TEST(RoomTypesTest, RowPlaceKeepsOptionalsOptional) {
    RowPlace p;
    p.stereo = true;
    EXPECT_EQ(json(p), json::parse(R"({"stereo":true})"));
    p.at = Point3{1, 2, 0.5};
    p.zone = "Garden";
    p.measuredDistance = 3.1;
    EXPECT_EQ(json(p).get<RowPlace>(), p);
    EXPECT_EQ(json::parse(R"({"at":"here","zone":7,"measuredDistance":"far"})").get<RowPlace>(),
              RowPlace{});
    EXPECT_EQ(json::parse(R"({"at":{"y":2}})").get<RowPlace>().at, (Point3{0, 2, 0}));
}

// A damaged or hostile settings file once put a row at 1e308: its mix was
// silence while its status said it played.
TEST(RoomTypesTest, ReadingClampsEveryNumberIntoTheRoomsBounds) {
    const auto room = json::parse(R"({"enabled":true,"seat":{"x":1e300,"y":-1e300,"z":-5,
                                      "face":1e300},"stageWidthDeg":1e300,"focus":-3,
                                      "width":1e300,"depth":0,"height":1e300,
                                      "flying":{"x":1e308,"y":1e308,"z":1e308}})")
                          .get<RoomState>();
    EXPECT_EQ(room.seat.x, RoomBounds::maxSideM);
    EXPECT_EQ(room.seat.y, 0.0);
    EXPECT_EQ(room.seat.z, RoomBounds::minPointZM);
    EXPECT_GE(room.seat.face, -M_PI);
    EXPECT_LE(room.seat.face, M_PI);
    EXPECT_EQ(room.stageWidthDeg, RoomBounds::maxStageWidthDeg);
    EXPECT_EQ(room.focus, 0.0);
    EXPECT_EQ(room.width, RoomBounds::maxSideM);
    EXPECT_EQ(room.depth, RoomBounds::minSideM);
    EXPECT_EQ(room.height, RoomBounds::maxHeightM);
    EXPECT_EQ(room.flying,
              (Point3{RoomBounds::maxSideM, RoomBounds::maxSideM, RoomBounds::maxHeightM}));

    const auto place =
        json::parse(R"({"at":{"x":1e308,"y":1e308,"z":1e308},"measuredDistance":1e300})")
            .get<RowPlace>();
    EXPECT_EQ(place.at,
              (Point3{RoomBounds::maxSideM, RoomBounds::maxSideM, RoomBounds::maxHeightM}));
    EXPECT_EQ(place.measuredDistance, RoomBounds::maxDistanceM);
    EXPECT_FALSE(json::parse(R"({"measuredDistance":-2})").get<RowPlace>().measuredDistance);

    // What the row plays from there is sound, not silence.
    const std::vector<std::optional<RowPlace>> rows{place};
    const Mix2 mix = RoomLayout::mixes(rows, {true}, room, 1).at(0);
    EXPECT_GT(std::abs(mix.ll) + std::abs(mix.rl) + std::abs(mix.lr) + std::abs(mix.rr), 0.1);
}

}  // namespace
}  // namespace vt::stage
