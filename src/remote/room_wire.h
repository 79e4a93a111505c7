// The room's values travel as the room keeps them: one set of types for the
// rules, the settings and the wire.
#pragma once

#include "stage/room_types.h"

namespace vt::remote {

using stage::Point3;
using stage::RoomState;
using stage::RowPlace;
using stage::Seat;

}  // namespace vt::remote
