#include "equaliser/eq_band.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "core/eq_rt.h"
#include "equaliser/json_read.h"

namespace vt::equaliser {

double ValueRange::clamp(double v, double fallback) const {
    if (std::isnan(v)) return fallback;
    return std::clamp(v, lower, upper);
}

bool EQBand::isIdentity() const {
    if (kind == EQKind::off) return true;
    return index(kind) < index(EQKind::lowPass) && gainDb == 0.0;
}

double EQBand::magnitudeDb(double atHz, double sampleRate) const {
    return re_eq_band_magnitude_db(index(kind), sampleRate, frequency, gainDb, q, atHz);
}

EQBand EQBand::clamped() const {
    const EQBand d;
    EQBand b = *this;
    if (!kindFromIndex(index(kind))) b.kind = EQKind::off;
    b.frequency = frequencyRange.clamp(frequency, d.frequency);
    b.gainDb = gainRange.clamp(gainDb, d.gainDb);
    b.q = qRange.clamp(q, d.q);
    return b;
}

void to_json(nlohmann::json& j, const EQBand& band) {
    j = nlohmann::json{{"kind", std::string(rawValue(band.kind))},
                       {"frequency", band.frequency},
                       {"gainDb", band.gainDb},
                       {"q", band.q}};
}

void from_json(const nlohmann::json& j, EQBand& band) {
    band = EQBand{};
    if (!j.is_object()) return;
    if (auto raw = json_read::readString(j, "kind"))
        band.kind = kindFromRaw(*raw).value_or(EQKind::off);
    band.frequency = json_read::readNumber(j, "frequency").value_or(band.frequency);
    band.gainDb = json_read::readNumber(j, "gainDb").value_or(band.gainDb);
    band.q = json_read::readNumber(j, "q").value_or(band.q);
    band = band.clamped();
}

}  // namespace vt::equaliser
