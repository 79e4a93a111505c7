#include "stage/room_types.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <numbers>

namespace vt::stage {
namespace {

using nlohmann::json;

const json* field(const json& j, const char* key) {
    if (!j.is_object()) return nullptr;
    auto it = j.find(key);
    return it == j.end() ? nullptr : &*it;
}

std::optional<double> finiteNumber(const json& j, const char* key) {
    const json* f = field(j, key);
    if (!f || !f->is_number()) return std::nullopt;
    const double v = f->get<double>();
    if (!std::isfinite(v)) return std::nullopt;
    return v;
}

void readClamped(const json& j, const char* key, double& out, double lo, double hi) {
    if (auto v = finiteNumber(j, key)) out = std::clamp(*v, lo, hi);
}

// A point of the floor plan: on the largest plan, above the floor.
void readPlanPoint(const json& j, double& x, double& y, double& z) {
    readClamped(j, "x", x, 0.0, RoomBounds::maxSideM);
    readClamped(j, "y", y, 0.0, RoomBounds::maxSideM);
    readClamped(j, "z", z, RoomBounds::minPointZM, RoomBounds::maxHeightM);
}

void readBool(const json& j, const char* key, bool& out) {
    if (const json* f = field(j, key); f && f->is_boolean()) out = f->get<bool>();
}

std::optional<Point3> readPoint(const json& j, const char* key) {
    const json* f = field(j, key);
    if (!f || !f->is_object()) return std::nullopt;
    return f->get<Point3>();
}

}  // namespace

void to_json(json& j, const Point3& p) {
    j = json{{"x", p.x}, {"y", p.y}, {"z", p.z}};
}

void from_json(const json& j, Point3& p) {
    p = Point3{};
    readPlanPoint(j, p.x, p.y, p.z);
}

void to_json(json& j, const Seat& s) {
    j = json{{"x", s.x}, {"y", s.y}, {"z", s.z}, {"face", s.face}};
}

void from_json(const json& j, Seat& s) {
    s = Seat{};
    readPlanPoint(j, s.x, s.y, s.z);
    if (auto face = finiteNumber(j, "face")) s.face = std::remainder(*face, 2 * std::numbers::pi);
}

void to_json(json& j, const RowPlace& p) {
    j = json{{"stereo", p.stereo}};
    if (p.at) j["at"] = *p.at;
    if (p.zone) j["zone"] = *p.zone;
    if (p.measuredDistance) j["measuredDistance"] = *p.measuredDistance;
}

void from_json(const json& j, RowPlace& p) {
    p = RowPlace{};
    p.at = readPoint(j, "at");
    readBool(j, "stereo", p.stereo);
    if (const json* f = field(j, "zone"); f && f->is_string()) p.zone = f->get<std::string>();
    if (auto d = finiteNumber(j, "measuredDistance"); d && *d > 0)
        p.measuredDistance = std::min(*d, RoomBounds::maxDistanceM);
}

void to_json(json& j, const RoomState& r) {
    j = json{{"enabled", r.enabled}, {"seat", r.seat},   {"stageWidthDeg", r.stageWidthDeg},
             {"focus", r.focus},     {"width", r.width}, {"depth", r.depth},
             {"height", r.height}};
    if (r.flying) j["flying"] = *r.flying;
}

void from_json(const json& j, RoomState& r) {
    r = RoomState{};
    readBool(j, "enabled", r.enabled);
    if (const json* f = field(j, "seat"); f && f->is_object()) r.seat = f->get<Seat>();
    readClamped(j, "stageWidthDeg", r.stageWidthDeg, RoomBounds::minStageWidthDeg,
                RoomBounds::maxStageWidthDeg);
    readClamped(j, "focus", r.focus, 0.0, 1.0);
    readClamped(j, "width", r.width, RoomBounds::minSideM, RoomBounds::maxSideM);
    readClamped(j, "depth", r.depth, RoomBounds::minSideM, RoomBounds::maxSideM);
    readClamped(j, "height", r.height, RoomBounds::minHeightM, RoomBounds::maxHeightM);
    r.flying = readPoint(j, "flying");
}

}  // namespace vt::stage
