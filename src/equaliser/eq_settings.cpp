#include "equaliser/eq_settings.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "equaliser/json_read.h"

namespace vt::equaliser {

std::vector<EQBand> EQSettings::flatBands() {
    return {
        {EQKind::lowShelf, 80, 0, 0.707}, {EQKind::peak, 220, 0, 1},
        {EQKind::peak, 650, 0, 1},        {EQKind::peak, 1800, 0, 1},
        {EQKind::peak, 5000, 0, 1},       {EQKind::highShelf, 10000, 0, 0.707},
    };
}

EQSettings EQSettings::flat() {
    return EQSettings{};
}

std::vector<EQBand> EQSettings::sized(std::vector<EQBand> bands) {
    if (bands.size() > bandCount) bands.resize(bandCount);
    const std::vector<EQBand> fill = flatBands();
    for (std::size_t i = bands.size(); i < bandCount; ++i) bands.push_back(fill[i]);
    return bands;
}

EQSettings EQSettings::clamped() const {
    EQSettings s = *this;
    s.preampDb = preampRange.clamp(preampDb, 0.0);
    s.bands = sized(bands);
    for (EQBand& b : s.bands) b = b.clamped();
    return s;
}

bool EQSettings::isFlat() const {
    if (preampDb != 0.0) return false;
    return std::all_of(bands.begin(), bands.end(), [](const EQBand& b) { return b.isIdentity(); });
}

double EQSettings::responseDb(double atHz, double sampleRate) const {
    if (!enabled) return 0.0;
    double db = preampDb;
    for (const EQBand& b : bands) db += b.magnitudeDb(atHz, sampleRate);
    return db;
}

double EQSettings::suggestedPreampDb(double sampleRate) const {
    double peak = 0.0;
    for (int i = 0; i <= 120; ++i) {
        const double f = 20.0 * std::pow(1000.0, i / 120.0);
        double db = 0.0;
        for (const EQBand& b : bands) db += b.magnitudeDb(f, sampleRate);
        peak = std::max(peak, db);
    }
    if (peak <= 0.5) return 0.0;
    // std::round takes ties away from zero, as a user reading "-3.5" expects -4.
    return std::max(-std::round(peak), preampRange.lower);
}

void to_json(nlohmann::json& j, const EQSettings& s) {
    j = nlohmann::json{{"enabled", s.enabled}, {"preampDb", s.preampDb}, {"bands", s.bands}};
}

void from_json(const nlohmann::json& j, EQSettings& s) {
    s = EQSettings{};
    if (!j.is_object()) return;
    s.enabled = json_read::readBool(j, "enabled").value_or(false);
    s.preampDb =
        EQSettings::preampRange.clamp(json_read::readNumber(j, "preampDb").value_or(0.0), 0.0);
    if (const nlohmann::json* list = json_read::field(j, "bands"); list && list->is_array()) {
        std::vector<EQBand> bands;
        for (const nlohmann::json& entry : *list) {
            if (entry.is_object()) bands.push_back(entry.get<EQBand>());
        }
        s.bands = EQSettings::sized(std::move(bands));
    }
}

}  // namespace vt::equaliser
