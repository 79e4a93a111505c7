// The room's values as they are stored and sent to the phone.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "stage/room_types.h"

namespace vt::stage {
namespace {

using nlohmann::json;

TEST(RoomTypesTest, InitialRoomAndIdentityMix) {
    const RoomState r = RoomState::initial();
    EXPECT_FALSE(r.enabled);
    EXPECT_EQ(r.seat, (Seat{2.6, 3.0, 1.1, 0}));
    EXPECT_EQ(r.stageWidthDeg, 30);
    EXPECT_EQ(r.focus, 0.62);
    EXPECT_EQ(r.width, 5.2);
    EXPECT_EQ(r.depth, 4.4);
    EXPECT_EQ(r.height, 2.6);
    EXPECT_EQ(r.flying, std::nullopt);
    EXPECT_EQ(Mix2::identity(), (Mix2{1, 0, 0, 1}));
}

TEST(RoomTypesTest, RoomRoundTripsWithItsKeys) {
    RoomState r;
    r.enabled = true;
    r.seat = Seat{1, 2, 3, 0.5};
    r.focus = 0.9;
    r.flying = Point3{1, 1, 1};
    const json j = r;
    for (const char* key :
         {"enabled", "seat", "stageWidthDeg", "focus", "width", "depth", "height", "flying"}) {
        EXPECT_TRUE(j.contains(key)) << key;
    }
    EXPECT_EQ(j["seat"]["face"], 0.5);
    EXPECT_EQ(json::parse(j.dump()).get<RoomState>(), r);
    EXPECT_FALSE(json(RoomState{}).contains("flying"));
}

TEST(RoomTypesTest, ReadingFallsBackFieldByField) {
    EXPECT_EQ(json::object().get<RoomState>(), RoomState::initial());
    EXPECT_EQ(json(42).get<RoomState>(), RoomState::initial());
    const auto r = json::parse(R"({"enabled":"yes","seat":{"x":1},"focus":0.3,
                                   "width":null,"flying":[1,2,3]})")
                       .get<RoomState>();
    EXPECT_FALSE(r.enabled);
    EXPECT_EQ(r.seat, (Seat{1, 3.0, 1.1, 0}));
    EXPECT_EQ(r.focus, 0.3);
    EXPECT_EQ(r.width, 5.2);
    EXPECT_EQ(r.flying, std::nullopt);
}

TEST(RoomTypesTest, RowPlaceKeepsOptionalsOptional) {
    RowPlace p;
    p.stereo = true;
    json j = p;
    EXPECT_EQ(j, json::parse(R"({"stereo":true})"));
    p.at = Point3{1, 2, 0.5};
    p.zone = "Garden";
    p.measuredDistance = 3.1;
    j = p;
    EXPECT_EQ(j["at"], json::parse(R"({"x":1.0,"y":2.0,"z":0.5})"));
    EXPECT_EQ(j.get<RowPlace>(), p);
    const auto broken =
        json::parse(R"({"at":"here","zone":7,"measuredDistance":"far"})").get<RowPlace>();
    EXPECT_EQ(broken, RowPlace{});
    const auto partial = json::parse(R"({"at":{"y":2}})").get<RowPlace>();
    EXPECT_EQ(partial.at, (Point3{0, 2, 0}));
}

}  // namespace
}  // namespace vt::stage
