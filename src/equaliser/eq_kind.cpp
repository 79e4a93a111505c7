#include "equaliser/eq_kind.h"

namespace vt::equaliser {
namespace {

struct KindWords {
    std::string_view raw;
    std::string_view title;
    std::string_view frequencyLabel;
    bool usesGain;
    bool usesQ;
    std::string_view detail;
};

constexpr std::array<KindWords, 8> kWords = {{
    {"off", "Off", "Centre", false, false, "This band does nothing"},
    {"peak", "Peak", "Centre", true, true, "Lifts or cuts around one frequency"},
    {"lowShelf", "Low shelf", "Corner", true, true, "Lifts or cuts everything below the corner"},
    {"highShelf", "High shelf", "Corner", true, true, "Lifts or cuts everything above the corner"},
    {"lowPass", "Low pass", "Corner", false, true, "Keeps the bottom, drops the top"},
    {"highPass", "High pass", "Corner", false, true,
     "Keeps the top, drops the bottom \u2014 for a speaker with no woofer"},
    {"notch", "Notch", "Centre", false, true,
     "Takes out one narrow frequency, for a hum or a whistle"},
    {"bandPass", "Band pass", "Centre", false, true, "Keeps only what is around the frequency"},
}};

const KindWords& words(EQKind k) {
    const uint32_t i = index(k);
    return kWords[i < kWords.size() ? i : 0];
}

}  // namespace

std::optional<EQKind> kindFromIndex(uint32_t i) {
    if (i >= allKinds.size()) return std::nullopt;
    return allKinds[i];
}

std::string_view rawValue(EQKind k) {
    return words(k).raw;
}

std::optional<EQKind> kindFromRaw(std::string_view raw) {
    for (EQKind k : allKinds) {
        if (words(k).raw == raw) return k;
    }
    return std::nullopt;
}

std::string_view title(EQKind k) {
    return words(k).title;
}
std::string_view frequencyLabel(EQKind k) {
    return words(k).frequencyLabel;
}
bool usesGain(EQKind k) {
    return words(k).usesGain;
}
bool usesQ(EQKind k) {
    return words(k).usesQ;
}
std::string_view detail(EQKind k) {
    return words(k).detail;
}

}  // namespace vt::equaliser
