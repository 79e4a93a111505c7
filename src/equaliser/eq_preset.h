// The ready-made equaliser settings a user can pick from.
#pragma once

#include <string>
#include <vector>

#include "equaliser/eq_settings.h"

namespace vt::equaliser {

struct EQPreset {
    std::string id;
    std::string name;
    std::string detail;
    EQSettings settings;

    // Seven presets, each enabled, in the order they are offered.
    static const std::vector<EQPreset>& all();
    // The first preset whose bands and preamp equal these; whether the
    // equaliser is switched on plays no part. Null when none does.
    static const EQPreset* matching(const EQSettings& settings);
    // The preset with this id, or null.
    static const EQPreset* find(std::string_view id);
};

}  // namespace vt::equaliser
