#include "stage/room_types.h"

#include <nlohmann/json.hpp>

namespace vt::stage {
namespace {

using nlohmann::json;

const json* field(const json& j, const char* key) {
    if (!j.is_object()) return nullptr;
    auto it = j.find(key);
    return it == j.end() ? nullptr : &*it;
}

void readNumber(const json& j, const char* key, double& out) {
    if (const json* f = field(j, key); f && f->is_number()) out = f->get<double>();
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
    readNumber(j, "x", p.x);
    readNumber(j, "y", p.y);
    readNumber(j, "z", p.z);
}

void to_json(json& j, const Seat& s) {
    j = json{{"x", s.x}, {"y", s.y}, {"z", s.z}, {"face", s.face}};
}

void from_json(const json& j, Seat& s) {
    s = Seat{};
    readNumber(j, "x", s.x);
    readNumber(j, "y", s.y);
    readNumber(j, "z", s.z);
    readNumber(j, "face", s.face);
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
    if (const json* f = field(j, "measuredDistance"); f && f->is_number()) {
        p.measuredDistance = f->get<double>();
    }
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
    readNumber(j, "stageWidthDeg", r.stageWidthDeg);
    readNumber(j, "focus", r.focus);
    readNumber(j, "width", r.width);
    readNumber(j, "depth", r.depth);
    readNumber(j, "height", r.height);
    r.flying = readPoint(j, "flying");
}

}  // namespace vt::stage
