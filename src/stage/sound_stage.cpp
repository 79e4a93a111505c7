#include "stage/sound_stage.h"

#include <cmath>
#include <numbers>

namespace vt::stage::SoundStage {
namespace {

constexpr double kPi = std::numbers::pi;

double distance(const Point3& a, const Point3& b) {
    return std::sqrt((a.x - b.x) * (a.x - b.x) + (a.y - b.y) * (a.y - b.y) +
                     (a.z - b.z) * (a.z - b.z));
}

Point3 onBearing(const Seat& seat, double bearing, double metres) {
    return {seat.x + metres * std::sin(bearing), seat.y - metres * std::cos(bearing), seat.z};
}

double rootSumSquares(const std::vector<double>& v) {
    double s = 0;
    for (double g : v) s += g * g;
    return std::sqrt(s);
}

}  // namespace

StagePoints stagePoints(const Seat& seat, double widthDeg) {
    const double half = widthDeg * kPi / 180.0;
    return {onBearing(seat, seat.face - half, stageDistance),
            onBearing(seat, seat.face + half, stageDistance)};
}

double exponent(double focus) {
    return (focus * 9.0 + 3.0) / 6.0206;
}

std::vector<Point3> drivers(const Placed& of, const Seat& seat) {
    const Point3& p = of.at;
    if (!of.stereo) return {p};
    const double t = std::atan2(p.x - seat.x, -(p.y - seat.y));
    const double dx = driverOffset * std::cos(t);
    const double dy = driverOffset * std::sin(t);
    return {{p.x - dx, p.y - dy, p.z}, {p.x + dx, p.y + dy, p.z}};
}

std::vector<std::vector<double>> driverGains(const std::vector<Placed>& placed, const Seat& seat,
                                             const Point3& source, double focus) {
    const double a = exponent(focus);
    std::vector<std::vector<double>> gains;
    gains.reserve(placed.size());
    double total = 0;
    for (const Placed& speaker : placed) {
        std::vector<double>& g = gains.emplace_back();
        for (const Point3& d : drivers(speaker, seat)) {
            const double r = distance(d, source);
            // A blur of 0.2 m keeps a source right on a driver finite.
            const double v = std::pow(r * r + 0.04, -a / 2.0);
            g.push_back(v);
            total += v * v;
        }
    }
    const double scale = total > 0 ? 1.0 / std::sqrt(total) : 1.0;
    for (auto& g : gains) {
        for (double& v : g) v *= scale;
    }
    return gains;
}

std::map<int, Mix2> mixes(const std::vector<Placed>& placed, const Seat& seat, double widthDeg,
                          double focus) {
    const StagePoints s = stagePoints(seat, widthDeg);
    const auto gL = driverGains(placed, seat, s.l, focus);
    const auto gR = driverGains(placed, seat, s.r, focus);
    std::map<int, Mix2> out;
    for (std::size_t i = 0; i < placed.size(); ++i) {
        if (placed[i].stereo) {
            if (gL[i].size() < 2 || gR[i].size() < 2) continue;
            // Each driver carries what the stage gives that driver.
            out[placed[i].id] = Mix2{gL[i][0], gR[i][0], gL[i][1], gR[i][1]};
        } else {
            const double l = rootSumSquares(gL[i]);
            const double r = rootSumSquares(gR[i]);
            out[placed[i].id] = Mix2{l, r, l, r};
        }
    }
    return out;
}

std::map<int, double> pointGains(const std::vector<Placed>& placed, const Point3& at,
                                 const Seat& seat, double focus) {
    const auto g = driverGains(placed, seat, at, focus);
    std::map<int, double> out;
    for (std::size_t i = 0; i < placed.size(); ++i) out[placed[i].id] = rootSumSquares(g[i]);
    return out;
}

double flightMs(const Point3& at, const Seat& seat) {
    return distance(at, Point3{seat.x, seat.y, seat.z}) / metersPerMs;
}

Polar polar(const Point3& at, const Seat& seat) {
    const double dx = at.x - seat.x;
    const double dy = at.y - seat.y;
    const double bearing = std::remainder(std::atan2(dx, -dy) - seat.face, 2.0 * kPi);
    const double flat = std::hypot(dx, dy);
    const double up = at.z - seat.z;
    return {bearing, flat, up, std::hypot(flat, up)};
}

Point3 fromPolar(double bearing, double flat, double up, const Seat& seat) {
    return {seat.x + flat * std::sin(bearing + seat.face),
            seat.y - flat * std::cos(bearing + seat.face), seat.z + up};
}

std::string_view whereWord(double bearingDeg) {
    const double b = std::fabs(bearingDeg);
    const bool left = bearingDeg < 0;
    if (b < 12) return "Straight ahead";
    if (b < 67.5) return left ? "Front left" : "Front right";
    if (b < 112.5) return left ? "To your left" : "To your right";
    if (b < 168) return left ? "Back left" : "Back right";
    return "Behind you";
}

}  // namespace vt::stage::SoundStage
