#include "remote/row_info.h"

#include <array>

namespace vt::remote {
namespace {

constexpr std::array<std::string_view, 8> kKinds = {"builtIn", "bluetooth", "airplay", "cast",
                                                    "usb",     "hdmi",      "guest",   "other"};

}  // namespace

std::string_view rawValue(RowInfo::Kind k) {
    return kKinds.at(static_cast<std::size_t>(k));
}

std::optional<RowInfo::Kind> rowKindFromRaw(std::string_view raw) {
    for (std::size_t i = 0; i < kKinds.size(); ++i) {
        if (kKinds[i] == raw) return static_cast<RowInfo::Kind>(i);
    }
    return std::nullopt;
}

}  // namespace vt::remote
