// The eight kinds of equaliser band, with the words the interface shows for
// each. The order is the real-time side's kind index and never changes.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace vt::equaliser {

enum class EQKind : uint32_t {
    off = 0,
    peak = 1,
    lowShelf = 2,
    highShelf = 3,
    lowPass = 4,
    highPass = 5,
    notch = 6,
    bandPass = 7,
};

inline constexpr std::array<EQKind, 8> allKinds = {
    EQKind::off,     EQKind::peak,     EQKind::lowShelf, EQKind::highShelf,
    EQKind::lowPass, EQKind::highPass, EQKind::notch,    EQKind::bandPass,
};

// The index the real-time design functions take.
inline constexpr uint32_t index(EQKind k) {
    return static_cast<uint32_t>(k);
}
std::optional<EQKind> kindFromIndex(uint32_t index);

// The string used in stored settings and on the wire.
std::string_view rawValue(EQKind k);
std::optional<EQKind> kindFromRaw(std::string_view raw);

std::string_view title(EQKind k);
// "Centre" or "Corner": what the frequency of this kind means.
std::string_view frequencyLabel(EQKind k);
bool usesGain(EQKind k);
bool usesQ(EQKind k);
std::string_view detail(EQKind k);

}  // namespace vt::equaliser
