#include "settings/preferences.h"

#include <array>

namespace vt::settings {

namespace {

struct StyleEntry {
    VisualiserStyle style;
    std::string_view raw;
    std::string_view description;
};

constexpr std::array<StyleEntry, 7> kStyles{{
    {VisualiserStyle::sheets, "Sheets", "Each output's trace, pushed back by its delay"},
    {VisualiserStyle::spectrum, "Spectrum", "Frequency bars, low on the left, with peak caps"},
    {VisualiserStyle::radial, "Radial",
     "The spectrum wrapped round a ring that beats with the bass"},
    {VisualiserStyle::scope, "Scope", "The waveform itself, as an oscilloscope draws it"},
    {VisualiserStyle::spectrogram, "Spectrogram", "Frequency over time, as a scrolling heat map"},
    {VisualiserStyle::particles, "Particles", "Sparks thrown up by the beat, coloured by pitch"},
    {VisualiserStyle::dolphins, "Dolphins",
     "Dolphins swimming in depth on a dot matrix, as a Pioneer head unit drew them, faster on "
     "the beat"},
}};

constexpr std::array<VisualiserStyle, 7> kStyleOrder{
    VisualiserStyle::sheets,  VisualiserStyle::spectrum,    VisualiserStyle::radial,
    VisualiserStyle::scope,   VisualiserStyle::spectrogram, VisualiserStyle::particles,
    VisualiserStyle::dolphins};

const StyleEntry& entry(VisualiserStyle style) {
    for (const auto& e : kStyles)
        if (e.style == style) return e;
    return kStyles[0];
}

}  // namespace

std::string_view rawValue(Appearance appearance) {
    switch (appearance) {
        case Appearance::light:
            return "Light";
        case Appearance::dark:
            return "Dark";
        case Appearance::automatic:
            break;
    }
    return "Auto";
}

Appearance appearanceFromRaw(std::string_view raw) {
    if (raw == "Light") return Appearance::light;
    if (raw == "Dark") return Appearance::dark;
    return Appearance::automatic;
}

std::string_view rawValue(VisualiserStyle style) {
    return entry(style).raw;
}

VisualiserStyle visualiserStyleFromRaw(std::string_view raw) {
    for (const auto& e : kStyles)
        if (e.raw == raw) return e.style;
    return VisualiserStyle::sheets;
}

std::string_view description(VisualiserStyle style) {
    return entry(style).description;
}

std::span<const VisualiserStyle> allVisualiserStyles() {
    return kStyleOrder;
}

}  // namespace vt::settings
