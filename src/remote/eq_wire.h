// Equalisers as the phone sees them: enough to draw and edit, not to design.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "equaliser/eq_band.h"
#include "equaliser/eq_kind.h"
#include "equaliser/eq_settings.h"

namespace vt::remote {

struct Band {
    equaliser::EQKind kind = equaliser::EQKind::off;
    double hz = 1000;
    double gainDb = 0;
    bool usesGain = false;

    static Band from(const equaliser::EQBand& band);
    bool operator==(const Band&) const = default;
};

// The master equaliser, with its response curve for drawing.
struct RemoteEQ {
    bool enabled = false;
    double preampDb = 0;
    std::vector<Band> bands;
    std::vector<double> curve;  // dB, on the caller's frequency grid
    std::optional<std::string> presetID;

    static RemoteEQ from(const equaliser::EQSettings& settings, std::vector<double> curve,
                         std::optional<std::string> presetID);
    bool operator==(const RemoteEQ&) const = default;
};

// One row's equaliser.
struct RowEQ {
    bool enabled = false;
    std::vector<Band> bands;
    std::optional<std::string> presetID;

    static RowEQ from(const equaliser::EQSettings& settings, std::optional<std::string> presetID);
    bool operator==(const RowEQ&) const = default;
};

}  // namespace vt::remote
