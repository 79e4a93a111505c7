#include "equaliser/eq_preset.h"

namespace vt::equaliser {
namespace {

using enum EQKind;

EQPreset make(std::string id, std::string name, std::string detail, double preampDb,
              std::vector<EQBand> bands) {
    EQSettings s;
    s.enabled = true;
    s.preampDb = preampDb;
    s.bands = std::move(bands);
    return EQPreset{std::move(id), std::move(name), std::move(detail), std::move(s)};
}

// The preamps are what suggestedPreampDb gives for each set of bands at 48 kHz,
// written out so that matching a stored row never depends on floating point.
std::vector<EQPreset> build() {
    std::vector<EQPreset> p;
    p.push_back(make("flat", "Flat", "Nothing at all", 0, EQSettings::flatBands()));
    p.push_back(make("bass", "More bass", "A lift under 90 Hz, and the mud above it taken out", -6,
                     {{lowShelf, 90, 6, 0.707},
                      {peak, 260, -2, 1},
                      {peak, 650, 0, 1},
                      {peak, 1800, 0, 1},
                      {peak, 5000, 0, 1},
                      {highShelf, 10000, 1, 0.707}}));
    p.push_back(make("small", "Small speaker", "Cuts what a little speaker cannot play anyway", -3,
                     {{highPass, 90, 0, 0.707},
                      {peak, 220, -3, 1},
                      {peak, 650, 0, 1},
                      {peak, 2500, 3, 0.9},
                      {peak, 5000, 0, 1},
                      {highShelf, 9000, 2, 0.707}}));
    p.push_back(make("voice", "Voice", "For speech: the rumble gone and the words forward", -4,
                     {{highPass, 100, 0, 0.707},
                      {peak, 300, -3, 1.2},
                      {peak, 900, 0, 1},
                      {peak, 2600, 4, 1},
                      {peak, 6000, 1, 1.2},
                      {highShelf, 11000, -3, 0.707}}));
    p.push_back(make("bright", "Bright", "Air at the top, for a speaker that sounds covered", -5,
                     {{lowShelf, 80, 0, 0.707},
                      {peak, 220, 0, 1},
                      {peak, 650, -1, 1},
                      {peak, 3000, 2, 1},
                      {peak, 5000, 0, 1},
                      {highShelf, 7000, 5, 0.707}}));
    p.push_back(make("warm", "Warm", "Softer at the top, fuller underneath", -3,
                     {{lowShelf, 150, 3, 0.707},
                      {peak, 400, 1, 0.8},
                      {peak, 1200, 0, 1},
                      {peak, 3500, -2, 1},
                      {peak, 5000, 0, 1},
                      {highShelf, 8000, -4, 0.707}}));
    p.push_back(make("night", "Late night", "Both ends lifted, so quiet still sounds full", -6,
                     {{lowShelf, 110, 6, 0.707},
                      {peak, 300, -2, 1},
                      {peak, 1000, -2, 0.8},
                      {peak, 2500, 1, 1},
                      {peak, 5000, 0, 1},
                      {highShelf, 9000, 5, 0.707}}));
    return p;
}

}  // namespace

const std::vector<EQPreset>& EQPreset::all() {
    static const std::vector<EQPreset> presets = build();
    return presets;
}

const EQPreset* EQPreset::matching(const EQSettings& settings) {
    for (const EQPreset& p : all()) {
        if (p.settings.bands == settings.bands && p.settings.preampDb == settings.preampDb) {
            return &p;
        }
    }
    return nullptr;
}

const EQPreset* EQPreset::find(std::string_view id) {
    for (const EQPreset& p : all()) {
        if (p.id == id) return &p;
    }
    return nullptr;
}

}  // namespace vt::equaliser
