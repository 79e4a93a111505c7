// The room's values as they travel to the phone: a floor plan in metres, x to
// the right, y towards the viewer, z up from the floor.
#pragma once

#include <optional>
#include <string>

namespace vt::remote {

struct Point3 {
    double x = 0;
    double y = 0;
    double z = 0;
    bool operator==(const Point3&) const = default;
};

struct Seat {
    double x = 2.6;
    double y = 3.0;
    double z = 1.1;
    double face = 0;  // radians, 0 facing smaller y, positive to the right
    bool operator==(const Seat&) const = default;
};

// Where one row stands in the room.
struct RowPlace {
    std::optional<Point3> at;  // none: off the floor plan
    bool stereo = false;
    std::optional<std::string> zone;  // plays for another room
    std::optional<double> measuredDistance;
    bool operator==(const RowPlace&) const = default;
};

struct RoomState {
    bool enabled = false;
    Seat seat;
    double stageWidthDeg = 30;
    double focus = 0.62;
    double width = 5.2;
    double depth = 4.4;
    double height = 2.6;
    std::optional<Point3> flying;
    bool operator==(const RoomState&) const = default;
};

}  // namespace vt::remote
