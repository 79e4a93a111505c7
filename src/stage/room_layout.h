// The rule book for rows on the floor plan: which rows stand on the stage,
// what each slot plays, how long each row's sound flies, how the room grows
// around its speakers, and where new speakers are put. Pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "stage/room_types.h"

namespace vt::stage::RoomLayout {

// Metres kept clear of a wall when the room grows.
inline constexpr double wallMargin = 0.3;
// The lowest a speaker may stand.
inline constexpr double lowest = 0.05;
// The smallest distance between speakers placed by rule.
inline constexpr double clearance = 0.6;

// rows holds every row's place by slot (absent when the row has none);
// counted says by slot whether a row takes part (has an output and is on).
using Places = std::vector<std::optional<RowPlace>>;

// The counted rows with a point and no zone, when the room is enabled.
std::vector<Placed> staged(const Places& rows, const std::vector<bool>& counted,
                           const RoomState& room);
// One mix per slot: the stage's where it applies, plain stereo elsewhere.
std::vector<Mix2> mixes(const Places& rows, const std::vector<bool>& counted, const RoomState& room,
                        std::size_t slots);
// The flight from a row's speaker to the seat, or 0 when the row is not on
// the stage.
double flightMs(const std::optional<RowPlace>& place, bool counted, const RoomState& room);
// One gain per slot for a test sound at a point; 0 off the stage.
std::vector<double> testGains(const Places& rows, const std::vector<bool>& counted,
                              const RoomState& room, const Point3& at, std::size_t slots);

// No speaker below the lowest height.
Point3 settled(Point3 point);
// The same bearing and height, moved to a distance from the seat.
Point3 onRing(const Point3& point, double distance, const Seat& seat);

// The floor plan to draw: an origin that reaches any point lying before the
// walls' zero, and the extent from there.
struct Box {
    double x0 = 0, y0 = 0;
    double width = 0, depth = 0, height = 0;
    bool operator==(const Box&) const = default;
};
Box box(const RoomState& room, const std::vector<Point3>& around);
// The room grown, never shrunk, to hold every point with a margin to spare.
RoomState grown(const RoomState& room, const std::vector<Point3>& around);

// Speakers on an arc around the seat, the centre one in the middle.
std::vector<std::pair<int, Point3>> arrange(const std::vector<int>& ids, std::optional<int> centre,
                                            const Seat& seat);

// Angles in degrees to try, nearest the front first: 0, every, -every, ...
// while below 75, then 75 and -75.
std::vector<double> sides(double every);
// A free spot in front of the seat for a new speaker, or nothing when its
// name says it is in another room.
std::optional<Point3> inFront(std::string_view name, const std::vector<Point3>& taken,
                              const Seat& seat);
// The same for several (slot, name) rows, each keeping clear of the last.
std::vector<std::pair<int, Point3>> inFront(const std::vector<std::pair<int, std::string>>& rows,
                                            std::vector<Point3> taken, const Seat& seat);

// The room a speaker's name puts it in ("Kitchen", "Office"...), if any.
std::optional<std::string> other(std::string_view name);

// Whether a new row's speaker starts out as stereo.
bool playsStereo(std::string_view transport, bool isCast, std::string_view airplayName,
                 std::string_view airplayModel);

}  // namespace vt::stage::RoomLayout
