// The stage: two virtual sources in front of the seat, shared out among the
// real speakers by their distance to each source, and the time the sound
// takes to fly from each speaker to the seat. Pure functions on values.
#pragma once

#include <map>
#include <string_view>
#include <vector>

#include "stage/room_types.h"

namespace vt::stage::SoundStage {

// Metres from the seat to each virtual source, and to speakers placed by rule.
inline constexpr double stageDistance = 2.4;
// Metres from a stereo speaker's centre to each of its drivers.
inline constexpr double driverOffset = 0.25;
// The speed of sound.
inline constexpr double metersPerMs = 0.343;

struct StagePoints {
    Point3 l;
    Point3 r;
};
// widthDeg is each source's angle off the facing direction, not the angle
// between the two.
StagePoints stagePoints(const Seat& seat, double widthDeg);

// The distance rolloff: focus 0 is 3 dB per doubling, focus 1 is 12 dB.
double exponent(double focus);

// One driver for a mono speaker; two for a stereo one, side by side across
// the line to the seat, its left first.
std::vector<Point3> drivers(const Placed& of, const Seat& seat);

// Distance-based amplitude panning of one source: one list per speaker with a
// gain per driver, scaled so that the summed power is 1.
std::vector<std::vector<double>> driverGains(const std::vector<Placed>& placed, const Seat& seat,
                                             const Point3& source, double focus);

// The 2 x 2 mix of every speaker, by slot.
std::map<int, Mix2> mixes(const std::vector<Placed>& placed, const Seat& seat, double widthDeg,
                          double focus);

// The gain of every speaker, by slot, for one source at a point: how a test
// sound is flown around the room.
std::map<int, double> pointGains(const std::vector<Placed>& placed, const Point3& at,
                                 const Seat& seat, double focus);

// Milliseconds the sound takes from a point to the seat.
double flightMs(const Point3& at, const Seat& seat);

struct Polar {
    double bearing;  // radians off the facing direction, -pi to pi, positive right
    double flat;     // distance along the floor
    double up;       // height above the seat
    double dist;     // distance in space
};
Polar polar(const Point3& at, const Seat& seat);
Point3 fromPolar(double bearing, double flat, double up, const Seat& seat);

// Names a direction from the seat in words, e.g. "Front left".
std::string_view whereWord(double bearingDeg);

}  // namespace vt::stage::SoundStage
