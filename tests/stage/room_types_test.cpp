// The room's values as they are stored and sent to the phone.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "stage/room_types.h"

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

}  // namespace
}  // namespace vt::stage
