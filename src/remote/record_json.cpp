#include "remote/record_json.h"

#include "remote/wire_describe.h"

namespace vt::remote {

template <class Record>
Record fromJson(const nlohmann::json& json) {
    if (!json.is_object()) throw DecodeError("A record is a JSON object.");
    Record r{};
    wire::Reader reader(json);
    describe(reader, r);
    return r;
}

#define VT_REMOTE_RECORD_JSON(Type)                \
    nlohmann::ordered_json toJson(const Type& v) { \
        return wire::Writer::value(v);             \
    }                                              \
    template Type fromJson<Type>(const nlohmann::json& json);

VT_REMOTE_RECORD_JSON(Point3)
VT_REMOTE_RECORD_JSON(Seat)
VT_REMOTE_RECORD_JSON(RowPlace)
VT_REMOTE_RECORD_JSON(RoomState)
VT_REMOTE_RECORD_JSON(Band)
VT_REMOTE_RECORD_JSON(RemoteEQ)
VT_REMOTE_RECORD_JSON(RowEQ)
VT_REMOTE_RECORD_JSON(RemotePreset)
VT_REMOTE_RECORD_JSON(ExtraOutput)
VT_REMOTE_RECORD_JSON(NowPlayingState)
VT_REMOTE_RECORD_JSON(LevelFrame)
VT_REMOTE_RECORD_JSON(RowInfo)
VT_REMOTE_RECORD_JSON(MacState)

#undef VT_REMOTE_RECORD_JSON

}  // namespace vt::remote
