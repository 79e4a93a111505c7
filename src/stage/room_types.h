// The floor plan as values: points, the seat, where a row's speaker stands,
// the room, and the 2 x 2 mix a speaker plays. Distances are metres: x to the
// right, y towards the viewer (smaller y is further forward), z up from the
// floor. Angles are radians, 0 facing smaller y, positive to the right.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace vt::stage {

struct Point3 {
    double x = 0, y = 0, z = 0;
    bool operator==(const Point3&) const = default;
};

struct Seat {
    double x = 2.6, y = 3.0, z = 1.1;
    double face = 0;  // radians
    bool operator==(const Seat&) const = default;
};

// A speaker on the stage: the row's slot, where it stands, and whether it has
// two drivers of its own.
struct Placed {
    int id = 0;
    Point3 at;
    bool stereo = false;
    bool operator==(const Placed&) const = default;
};

// left out = ll * left in + rl * right in; right out = lr * left in + rr * right in.
struct Mix2 {
    double ll = 1, rl = 0, lr = 0, rr = 1;
    static Mix2 identity() { return {}; }
    bool operator==(const Mix2&) const = default;
};

// Where a row's speaker is, stored with the row.
struct RowPlace {
    std::optional<Point3> at;  // nothing: off the floor plan
    bool stereo = false;
    std::optional<std::string> zone;         // plays for another room, outside the stage
    std::optional<double> measuredDistance;  // metres from the seat, when measured
    bool operator==(const RowPlace&) const = default;
};

struct RoomState {
    bool enabled = false;
    Seat seat;
    double stageWidthDeg = 30;  // each source's angle off the facing direction
    double focus = 0.62;
    double width = 5.2;
    double depth = 4.4;
    double height = 2.6;
    std::optional<Point3> flying;  // where a test sound is being flown, if it is
    static RoomState initial() { return {}; }
    bool operator==(const RoomState&) const = default;
};

// The room's bounds, as the setters of the room allow them.
struct RoomBounds {
    static constexpr double minSideM = 1.0;  // width and depth
    static constexpr double maxSideM = 50.0;
    static constexpr double minHeightM = 1.5;
    static constexpr double maxHeightM = 20.0;
    static constexpr double minPointZM = 0.05;  // nothing stands in the floor
    static constexpr double minStageWidthDeg = 15.0;
    static constexpr double maxStageWidthDeg = 60.0;
    // No measured distance inside the largest room is longer than this.
    static constexpr double maxDistanceM = 100.0;
};

// Reading never fails: missing or mistyped fields keep their defaults, and a
// broken optional reads as absent. Every number is clamped into the room's
// bounds as it is read, and one that is not finite keeps its default: a
// point read as 1e308 would put a speaker where no sound reaches the seat.
void to_json(nlohmann::json& j, const Point3& p);
void from_json(const nlohmann::json& j, Point3& p);
void to_json(nlohmann::json& j, const Seat& s);
void from_json(const nlohmann::json& j, Seat& s);
void to_json(nlohmann::json& j, const RowPlace& p);
void from_json(const nlohmann::json& j, RowPlace& p);
void to_json(nlohmann::json& j, const RoomState& r);
void from_json(const nlohmann::json& j, RoomState& r);

}  // namespace vt::stage
