// One output row as the phone shows it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "remote/eq_wire.h"
#include "remote/room_wire.h"

namespace vt::remote {

struct RowInfo {
    enum class Kind { builtIn, bluetooth, airplay, cast, usb, hdmi, guest, other };

    int slot = -1;
    std::string name;
    Kind kind = Kind::other;
    std::string transport;
    double latencyMs = 0;
    double trimMs = 0;
    double volume = 1;
    bool muted = false;
    bool audible = false;
    bool isReference = false;
    bool stale = false;
    std::string source = "none";  // how the delay was found
    // Fields a newer phone may find missing from an older computer.
    bool disabled = false;
    bool renamed = false;
    bool canReconnect = false;
    std::optional<RowEQ> eq;
    std::optional<double> gainDb;
    std::optional<RowPlace> place;
    bool notTimed = false;
    std::optional<std::string> guestID;

    bool operator==(const RowInfo&) const = default;
};

std::string_view rawValue(RowInfo::Kind k);
std::optional<RowInfo::Kind> rowKindFromRaw(std::string_view raw);

}  // namespace vt::remote
