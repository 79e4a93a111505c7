#include "settings/output_settings.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "delay/delay_plan.h"
#include "equaliser/json_read.h"
#include "settings/bounded_text.h"

namespace vt::settings {

namespace jr = equaliser::json_read;
using nlohmann::json;

namespace {

// No measurement or report of a real output comes near a minute; anything
// beyond is damage, not data.
constexpr double kLatencyLimitMs = 60000.0;

std::optional<double> finiteNumber(const json& j, const char* key) {
    auto v = jr::readNumber(j, key);
    if (!v || !std::isfinite(*v)) return std::nullopt;
    return v;
}

void readClamped(const json& j, const char* key, double& out, double lo, double hi) {
    if (auto v = finiteNumber(j, key)) out = std::clamp(*v, lo, hi);
}

void readBool(const json& j, const char* key, bool& out) {
    if (auto v = jr::readBool(j, key)) out = *v;
}

void readString(const json& j, const char* key, std::optional<std::string>& out) {
    if (auto v = jr::readString(j, key)) out = std::move(*v);
}

void readName(const json& j, const char* key, std::optional<std::string>& out) {
    if (auto v = jr::readString(j, key)) out = boundedText(*v);
}

void readInt(const json& j, const char* key, std::optional<int>& out) {
    auto v = finiteNumber(j, key);
    if (!v) return;
    const double lo = std::numeric_limits<int>::min();
    const double hi = std::numeric_limits<int>::max();
    out = static_cast<int>(std::clamp(std::round(*v), lo, hi));
}

void readEQ(const json& j, equaliser::EQSettings& out) {
    if (const json* f = jr::field(j, "eq"); f && f->is_object()) f->get_to(out);
}

void readPlace(const json& j, std::optional<RawPlace>& out) {
    if (const json* f = jr::field(j, "place"); f && f->is_object()) out = *f;
}

void readLatency(const json& j, double& ms, LatencySource& source) {
    readClamped(j, "measuredLatencyMs", ms, -kLatencyLimitMs, kLatencyLimitMs);
    if (auto raw = jr::readString(j, "latencySource")) source = latencySourceFromRaw(*raw);
}

// Names come from sound servers and receivers, whose words we do not choose.
void putName(json& j, const char* key, const std::optional<std::string>& name) {
    if (name) j[key] = boundedText(*name);
}

template <typename T>
void putIfPresent(json& j, const char* key, const std::optional<T>& v) {
    if (v) j[key] = *v;
}

}  // namespace

std::optional<std::string> memoryKey(const std::optional<std::string>& deviceUID,
                                     const std::optional<std::string>& airplayID,
                                     const std::optional<std::string>& castID) {
    if (castID) return "cast:" + *castID;
    if (airplayID) return "air:" + *airplayID;
    if (deviceUID) return "uid:" + *deviceUID;
    return std::nullopt;
}

void to_json(json& j, const OutputSettings& s) {
    j = json::object();
    putIfPresent(j, "deviceUID", s.deviceUID);
    putName(j, "deviceName", s.deviceName);
    putIfPresent(j, "airplayID", s.airplayID);
    putName(j, "airplayName", s.airplayName);
    putIfPresent(j, "castID", s.castID);
    putName(j, "castName", s.castName);
    j["delayMs"] = s.delayMs;
    j["volume"] = s.volume;
    j["muted"] = s.muted;
    j["collapsed"] = s.collapsed;
    j["disabled"] = s.disabled;
    putIfPresent(j, "order", s.order);
    putIfPresent(j, "hue", s.hue);
    j["measuredLatencyMs"] = s.measuredLatencyMs;
    j["latencySource"] = std::string(rawValue(s.latencySource));
    j["eq"] = s.eq;
    putIfPresent(j, "place", s.place);
}

void from_json(const json& j, OutputSettings& s) {
    s = OutputSettings{};
    if (!j.is_object()) return;
    readString(j, "deviceUID", s.deviceUID);
    readName(j, "deviceName", s.deviceName);
    readString(j, "airplayID", s.airplayID);
    readName(j, "airplayName", s.airplayName);
    readString(j, "castID", s.castID);
    readName(j, "castName", s.castName);
    readClamped(j, "delayMs", s.delayMs, delay::DelayPlan::range.lower,
                delay::DelayPlan::range.upper);
    readClamped(j, "volume", s.volume, 0.0, 1.0);
    readBool(j, "muted", s.muted);
    readBool(j, "collapsed", s.collapsed);
    readBool(j, "disabled", s.disabled);
    readInt(j, "order", s.order);
    readInt(j, "hue", s.hue);
    readLatency(j, s.measuredLatencyMs, s.latencySource);
    readEQ(j, s.eq);
    readPlace(j, s.place);
}

void to_json(json& j, const RememberedOutput& r) {
    j = json::object();
    j["delayMs"] = r.delayMs;
    j["volume"] = r.volume;
    j["muted"] = r.muted;
    j["eq"] = r.eq;
    j["measuredLatencyMs"] = r.measuredLatencyMs;
    j["latencySource"] = std::string(rawValue(r.latencySource));
    putIfPresent(j, "place", r.place);
}

void from_json(const json& j, RememberedOutput& r) {
    r = RememberedOutput{};
    if (!j.is_object()) return;
    readClamped(j, "delayMs", r.delayMs, delay::DelayPlan::range.lower,
                delay::DelayPlan::range.upper);
    readClamped(j, "volume", r.volume, 0.0, 1.0);
    readBool(j, "muted", r.muted);
    readEQ(j, r.eq);
    readLatency(j, r.measuredLatencyMs, r.latencySource);
    readPlace(j, r.place);
}

}  // namespace vt::settings
