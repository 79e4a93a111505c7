// A six-band equaliser with its preamp: the value a row (or the master) keeps,
// stores and publishes to the real-time side.
#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "equaliser/eq_band.h"

namespace vt::equaliser {

struct EQSettings {
    static constexpr std::size_t bandCount = 6;
    static constexpr ValueRange preampRange{-24.0, 24.0};

    bool enabled = false;
    double preampDb = 0.0;
    std::vector<EQBand> bands = flatBands();

    // The bands of the "Flat" preset: a neutral shelf-peak-shelf layout.
    static std::vector<EQBand> flatBands();
    // Disabled, no preamp, flat bands.
    static EQSettings flat();
    // Exactly bandCount bands: a longer list is cut, a shorter one is filled
    // from flatBands at the missing positions.
    static std::vector<EQBand> sized(std::vector<EQBand> bands);

    // Six bands, each value in its range: what is safe to publish.
    EQSettings clamped() const;

    // Nothing would change the sound even if enabled.
    bool isFlat() const;
    // What the equaliser does at one frequency: 0 when disabled, else the
    // preamp plus every band's response.
    double responseDb(double atHz, double sampleRate) const;
    // The preamp that just keeps the bands' largest lift from clipping.
    double suggestedPreampDb(double sampleRate) const;

    bool operator==(const EQSettings&) const = default;
};

void to_json(nlohmann::json& j, const EQSettings& s);
// Never fails: bad fields take defaults, values are clamped, band entries that
// are not objects are skipped, and the list is brought to six bands.
void from_json(const nlohmann::json& j, EQSettings& s);

}  // namespace vt::equaliser
