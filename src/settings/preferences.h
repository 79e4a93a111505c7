// The enumerated preferences and their stored (and shown) raw values.
#pragma once

#include <span>
#include <string_view>

namespace vt::settings {

enum class Appearance { automatic, light, dark };

// "Auto", "Light", "Dark".
std::string_view rawValue(Appearance appearance);
// Anything unknown is automatic.
Appearance appearanceFromRaw(std::string_view raw);

enum class VisualiserStyle { sheets, spectrum, radial, scope, spectrogram, particles, dolphins };

// "Sheets", "Spectrum", ...
std::string_view rawValue(VisualiserStyle style);
// Anything unknown is sheets.
VisualiserStyle visualiserStyleFromRaw(std::string_view raw);
// One line saying what the style shows.
std::string_view description(VisualiserStyle style);
// Every style, in the order they are offered.
std::span<const VisualiserStyle> allVisualiserStyles();

}  // namespace vt::settings
