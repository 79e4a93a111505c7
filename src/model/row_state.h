// One output row as the model keeps it while the program runs, and the
// records built from rows: a row with its slot for display, and the copy kept
// of the row removed last so that it can be put back.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "airplay/airplay_status.h"
#include "cast/cast_output_sender.h"
#include "equaliser/eq_settings.h"
#include "guests/guest_sender.h"
#include "settings/latency_source.h"
#include "stage/room_types.h"

namespace vt::model {

// A row's identity in the list: unique for the process, never reused.
using RowId = uint64_t;

struct RowState {
    RowId id = 0;
    // A row plays to at most one of these; with none it is an empty row.
    std::optional<std::string> deviceUID, deviceName;
    std::optional<std::string> airplayID, airplayName;
    std::optional<std::string> castID, castName;
    std::optional<cast::CastStatus> castStatus;
    std::optional<airplay::AirPlayStatus> airplayStatus;
    bool castSynced = false;
    std::optional<std::string> guestID, guestName;
    std::optional<guests::GuestSender::Status> guestStatus;
    // Network connection bookkeeping; times on the main queue's clock.
    std::optional<double> connectingSince;
    bool connectStalled = false;
    double streamLatencyMs = 0;
    double measuredLatencyMs = 0;
    settings::LatencySource latencySource = settings::LatencySource::none;
    bool pairingOffered = false;
    bool passwordOffered = false;
    double delayMs = 0;  // the user's offset
    double volume = 1.0;
    bool muted = false;
    bool collapsed = false;
    bool disabled = false;
    bool heldAfterRestart = false;
    std::optional<std::string> customName;
    bool connected = false;
    bool failedToOpen = false;
    bool starting = false;
    bool primed = false;
    std::optional<double> primedSince;
    bool measureHintDue = false;
    double ppm = 0;
    std::optional<double> bornAt;
    int order = 0;
    int hue = 0;
    equaliser::EQSettings eq = equaliser::EQSettings::flat();
    std::optional<double> eqClippedAt;
    stage::RowPlace place;
    double engineLateMs = 0;

    bool isGuest() const { return guestID.has_value(); }
    bool isAirPlay() const { return airplayID.has_value(); }
    bool isCast() const { return castID.has_value(); }
    // A local sound device and nothing else.
    bool isDevice() const { return deviceUID && !airplayID && !castID && !guestID; }
    bool hasOutput() const { return deviceUID || airplayID || castID || guestID; }
    // Takes part in timing: has an output and is switched on.
    bool counted() const { return hasOutput() && !disabled; }
    // What the output calls itself.
    std::string originalName() const;
    // The custom name if there is one, else the original name.
    std::string shownName() const;
    // "cast:", "air:" or "uid:" and the id; none for guests and empty rows.
    std::optional<std::string> memoryKey() const;
};

struct ShownRow {
    int slot = 0;
    RowState row;
};

// The row removed last: enough to put it back as it was.
struct RemovedOutput {
    RowId id = 0;
    std::string name;
    RowState row;
};

}  // namespace vt::model
