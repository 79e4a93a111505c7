// One band of a six-band equaliser as the user sets it.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "equaliser/eq_kind.h"

namespace vt::equaliser {

struct ValueRange {
    double lower;
    double upper;
    // NaN becomes the given fallback, everything else is pulled into range.
    double clamp(double v, double fallback) const;
};

struct EQBand {
    static constexpr ValueRange frequencyRange{20.0, 20000.0};
    static constexpr ValueRange gainRange{-24.0, 24.0};
    static constexpr ValueRange qRange{0.1, 18.0};

    EQKind kind = EQKind::off;
    double frequency = 1000.0;  // Hz
    double gainDb = 0.0;
    double q = 0.707;

    // A band that leaves the sound exactly as it is.
    bool isIdentity() const;
    // The band's response in dB at one frequency, as the real-time side
    // designs it for this sample rate.
    double magnitudeDb(double atHz, double sampleRate) const;
    // The same band with every value pulled into its range.
    EQBand clamped() const;

    bool operator==(const EQBand&) const = default;
};

// Writing never fails; reading never fails either: a missing or mistyped field
// takes its default, numbers are clamped, an unknown kind reads as off.
void to_json(nlohmann::json& j, const EQBand& band);
void from_json(const nlohmann::json& j, EQBand& band);

}  // namespace vt::equaliser
