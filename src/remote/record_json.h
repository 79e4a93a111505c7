// The records of the remote link on their own, as JSON: for printing a state,
// keeping a room, or testing. Reading follows the same forgiving rules as
// whole messages; it throws DecodeError only when the value is not an object
// or a required key is missing.
#pragma once

#include <nlohmann/json.hpp>

#include "remote/decode_error.h"
#include "remote/eq_wire.h"
#include "remote/level_frame.h"
#include "remote/mac_state.h"
#include "remote/now_playing_state.h"
#include "remote/room_wire.h"
#include "remote/row_info.h"

namespace vt::remote {

nlohmann::ordered_json toJson(const Point3& v);
nlohmann::ordered_json toJson(const Seat& v);
nlohmann::ordered_json toJson(const RowPlace& v);
nlohmann::ordered_json toJson(const RoomState& v);
nlohmann::ordered_json toJson(const Band& v);
nlohmann::ordered_json toJson(const RemoteEQ& v);
nlohmann::ordered_json toJson(const RowEQ& v);
nlohmann::ordered_json toJson(const RemotePreset& v);
nlohmann::ordered_json toJson(const ExtraOutput& v);
nlohmann::ordered_json toJson(const NowPlayingState& v);
nlohmann::ordered_json toJson(const LevelFrame& v);
nlohmann::ordered_json toJson(const RowInfo& v);
nlohmann::ordered_json toJson(const MacState& v);

// Defined for each record type above.
template <class Record>
Record fromJson(const nlohmann::json& json);

}  // namespace vt::remote
