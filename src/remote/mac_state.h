// The whole state the computer shows a paired phone, sent as one record.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "remote/eq_wire.h"
#include "remote/now_playing_state.h"
#include "remote/room_wire.h"
#include "remote/row_info.h"

namespace vt::remote {

struct RemotePreset {
    std::string id;
    std::string name;
    bool operator==(const RemotePreset&) const = default;
};

// An output that can be added.
struct ExtraOutput {
    std::string id;
    std::string name;
    RowInfo::Kind kind = RowInfo::Kind::other;
    std::string transport;
    bool operator==(const ExtraOutput&) const = default;
};

struct MacState {
    std::string macName;
    std::vector<RowInfo> rows;  // in slot order
    std::optional<int> referenceSlot;
    std::optional<double> micConstantMs;  // this phone's microphone, for the reference row
    std::string appVersion;
    bool running = false;
    double master = 1;
    RemoteEQ masterEQ;
    std::vector<RemotePreset> presets;
    std::optional<NowPlayingState> nowPlaying;
    std::vector<ExtraOutput> extras;
    std::optional<int> soloSlot;
    std::optional<RoomState> room;
    std::optional<double> systemVolume;
    std::optional<std::string> guestLink;  // the guests' join URL
    // The sound server by its name ("PipeWire"), or "waiting for PipeWire"
    // while it is away.
    std::optional<std::string> soundServer;

    bool operator==(const MacState&) const = default;
};

}  // namespace vt::remote
