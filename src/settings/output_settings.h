// What is kept of an output row between runs, and what is remembered of an
// output after its row has gone.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "equaliser/eq_settings.h"
#include "settings/latency_source.h"

namespace vt::settings {

// A row's place in the room is stored as the room code wrote it; until the
// room's types read it, it is carried through untouched.
using RawPlace = nlohmann::json;

struct OutputSettings {
    std::optional<std::string> deviceUID;
    std::optional<std::string> deviceName;
    std::optional<std::string> airplayID;
    std::optional<std::string> airplayName;
    std::optional<std::string> castID;
    std::optional<std::string> castName;
    double delayMs = 0;
    double volume = 1.0;
    bool muted = false;
    bool collapsed = false;
    bool disabled = false;
    std::optional<int> order;
    std::optional<int> hue;
    double measuredLatencyMs = 0;
    LatencySource latencySource = LatencySource::none;
    equaliser::EQSettings eq = equaliser::EQSettings::flat();
    std::optional<RawPlace> place;

    bool operator==(const OutputSettings&) const = default;
};

struct RememberedOutput {
    double delayMs = 0;
    double volume = 1.0;
    bool muted = false;
    equaliser::EQSettings eq = equaliser::EQSettings::flat();
    double measuredLatencyMs = 0;
    LatencySource latencySource = LatencySource::none;
    std::optional<RawPlace> place;

    bool operator==(const RememberedOutput&) const = default;
};

// The key under which an output is remembered: "cast:" + the Cast id, else
// "air:" + the AirPlay id, else "uid:" + the device UID; none for a row with
// none of them (a guest, an empty row). The more specific transport wins.
std::optional<std::string> memoryKey(const std::optional<std::string>& deviceUID,
                                     const std::optional<std::string>& airplayID,
                                     const std::optional<std::string>& castID);
inline std::optional<std::string> memoryKey(const OutputSettings& s) {
    return memoryKey(s.deviceUID, s.airplayID, s.castID);
}

// Absent optionals are left out. Decoding never fails: a field that is
// missing or of the wrong type keeps its default, numbers are clamped to
// their ranges (non-finite ones dropped), and anything but an object decodes
// as all defaults.
void to_json(nlohmann::json& j, const OutputSettings& s);
void from_json(const nlohmann::json& j, OutputSettings& s);
void to_json(nlohmann::json& j, const RememberedOutput& r);
void from_json(const nlohmann::json& j, RememberedOutput& r);

}  // namespace vt::settings
