#include "remote/wire_enums.h"

#include <array>

namespace vt::remote {
namespace {

constexpr std::array<std::string_view, 7> kMedia = {"play",     "pause",  "togglePlayPause", "next",
                                                    "previous", "back15", "forward15"};
constexpr std::array<std::string_view, 2> kRoles = {"reference", "target"};

template <class E, std::size_t N>
std::optional<E> find(const std::array<std::string_view, N>& names, std::string_view raw) {
    for (std::size_t i = 0; i < N; ++i) {
        if (names[i] == raw) return static_cast<E>(i);
    }
    return std::nullopt;
}

}  // namespace

std::string_view rawValue(MediaCommand c) {
    return kMedia.at(static_cast<std::size_t>(c));
}

std::optional<MediaCommand> mediaCommandFromRaw(std::string_view raw) {
    return find<MediaCommand>(kMedia, raw);
}

std::string_view rawValue(MeasureRole r) {
    return kRoles.at(static_cast<std::size_t>(r));
}

std::optional<MeasureRole> measureRoleFromRaw(std::string_view raw) {
    return find<MeasureRole>(kRoles, raw);
}

}  // namespace vt::remote
