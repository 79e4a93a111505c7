#include "airplay_tool/session_plists.h"

#include <plist/plist.h>

#include <limits>
#include <memory>

#include "airplay_tool/alac_frame.h"
#include "airplay_tool/stream_timeline.h"

namespace vt::airplay_tool {

namespace {

constexpr std::string_view kBinaryPlistMagic = "bplist00";
constexpr uint64_t kMaxPort = 65535;

struct PlistFree {
    void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
using Plist = std::unique_ptr<void, PlistFree>;

std::string toBinary(const Plist& root) {
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(static_cast<plist_t>(root.get()), &bin, &length);
    std::string out = bin ? std::string(bin, length) : std::string();
    plist_to_bin_free(bin);
    return out;
}

void set(plist_t dict, const char* key, plist_t value) {
    plist_dict_set_item(dict, key, value);
}

plist_t stringArray(const std::vector<std::string>& items) {
    plist_t array = plist_new_array();
    for (const std::string& item : items)
        plist_array_append_item(array, plist_new_string(item.c_str()));
    return array;
}

// A binary plist whose root is a dictionary, or nothing.
Plist readDictionary(std::string_view body) {
    if (body.size() > kMaxSetupReplyBytes ||
        body.substr(0, kBinaryPlistMagic.size()) != kBinaryPlistMagic)
        return nullptr;
    plist_t raw = nullptr;
    plist_from_bin(body.data(), static_cast<uint32_t>(body.size()), &raw);
    Plist root(raw);
    if (!raw || plist_get_node_type(raw) != PLIST_DICT) return nullptr;
    return root;
}

std::optional<uint64_t> unsignedItem(plist_t dict, const char* key) {
    plist_t item = plist_dict_get_item(dict, key);
    if (!item || plist_get_node_type(item) != PLIST_UINT) return std::nullopt;
    uint64_t value = 0;
    plist_get_uint_val(item, &value);
    return value;
}

std::optional<int> portItem(plist_t dict, const char* key) {
    const auto value = unsignedItem(dict, key);
    if (!value || *value == 0 || *value > kMaxPort) return std::nullopt;
    return static_cast<int>(*value);
}

}  // namespace

std::string buildSessionSetup(const SessionSetup& setup) {
    Plist root(plist_new_dict());
    plist_t dict = static_cast<plist_t>(root.get());
    set(dict, "deviceID", plist_new_string(setup.deviceID.c_str()));
    set(dict, "macAddress", plist_new_string(setup.deviceID.c_str()));
    set(dict, "sessionUUID", plist_new_string(setup.sessionUUID.c_str()));
    set(dict, "groupUUID", plist_new_string(setup.groupUUID.c_str()));
    set(dict, "groupContainsGroupLeader", plist_new_bool(0));
    set(dict, "isMultiSelectAirPlay", plist_new_bool(1));
    set(dict, "name", plist_new_string(setup.name.c_str()));
    set(dict, "model", plist_new_string("Vellatone"));
    set(dict, "sourceVersion", plist_new_string("409.16"));
    if (setup.ptpPeer) {
        const ptp::TimingPeerInfo& peer = *setup.ptpPeer;
        set(dict, "timingProtocol", plist_new_string("PTP"));
        plist_t info = plist_new_dict();
        set(info, "Addresses", stringArray(peer.addresses));
        set(info, "ID", plist_new_string(peer.id.c_str()));
        // A signed 64-bit number on the wire; libplist keeps its bits.
        set(info, "ClockID", plist_new_uint(static_cast<uint64_t>(peer.clockID)));
        set(info, "DeviceType", plist_new_uint(static_cast<uint64_t>(peer.deviceType)));
        set(info, "SupportsClockPortMatchingOverride",
            plist_new_bool(peer.supportsClockPortMatchingOverride ? 1 : 0));
        set(dict, "timingPeerInfo", info);
        plist_t list = plist_new_array();
        plist_array_append_item(list, plist_copy(info));
        set(dict, "timingPeerList", list);
    } else {
        set(dict, "timingProtocol", plist_new_string("NTP"));
        set(dict, "timingPort", plist_new_uint(static_cast<uint64_t>(setup.ntpTimingPort)));
    }
    return toBinary(root);
}

std::optional<SessionSetupReply> parseSessionSetupReply(std::string_view body) {
    Plist root = readDictionary(body);
    if (!root) return std::nullopt;
    const auto eventPort = portItem(static_cast<plist_t>(root.get()), "eventPort");
    if (!eventPort) return std::nullopt;
    return SessionSetupReply{*eventPort};
}

std::string buildSetPeers(const std::vector<std::string>& addresses) {
    Plist root(stringArray(addresses));
    return toBinary(root);
}

std::string buildStreamSetup(const StreamSetup& setup) {
    Plist root(plist_new_dict());
    plist_t stream = plist_new_dict();
    set(stream, "type", plist_new_uint(kStreamTypeRealtime));
    set(stream, "ct", plist_new_uint(kCompressionAlac));
    set(stream, "audioFormat", plist_new_uint(kAlacFormat44100x16x2));
    set(stream, "spf", plist_new_uint(kFramesPerPacket));
    set(stream, "sr", plist_new_uint(kRaopSampleRate));
    set(stream, "shk",
        plist_new_data(reinterpret_cast<const char*>(setup.streamKey.data()),
                       setup.streamKey.size()));
    set(stream, "controlPort", plist_new_uint(static_cast<uint64_t>(setup.controlPort)));
    set(stream, "audioMode", plist_new_string("default"));
    set(stream, "isMedia", plist_new_bool(1));
    set(stream, "streamConnectionID", plist_new_uint(setup.connectionID));
    set(stream, "supportsDynamicStreamID", plist_new_bool(0));
    set(stream, "latencyMin", plist_new_uint(setup.latencyMinFrames));
    set(stream, "latencyMax", plist_new_uint(setup.latencyMaxFrames));
    plist_t streams = plist_new_array();
    plist_array_append_item(streams, stream);
    set(static_cast<plist_t>(root.get()), "streams", streams);
    return toBinary(root);
}

std::optional<StreamSetupReply> parseStreamSetupReply(std::string_view body) {
    Plist root = readDictionary(body);
    if (!root) return std::nullopt;
    plist_t streams = plist_dict_get_item(static_cast<plist_t>(root.get()), "streams");
    if (!streams || plist_get_node_type(streams) != PLIST_ARRAY ||
        plist_array_get_size(streams) != 1)
        return std::nullopt;
    plist_t stream = plist_array_get_item(streams, 0);
    if (!stream || plist_get_node_type(stream) != PLIST_DICT) return std::nullopt;
    // A receiver that answers for another kind of stream did not take ours.
    if (const auto type = unsignedItem(stream, "type"); type && *type != kStreamTypeRealtime)
        return std::nullopt;
    const auto dataPort = portItem(stream, "dataPort");
    const auto controlPort = portItem(stream, "controlPort");
    if (!dataPort || !controlPort) return std::nullopt;
    StreamSetupReply reply{*dataPort, *controlPort, unsignedItem(stream, "audioBufferSize"),
                           unsignedItem(stream, "latencyMin"), unsignedItem(stream, "latencyMax")};
    if (reply.latencyMinFrames && reply.latencyMaxFrames &&
        *reply.latencyMinFrames > *reply.latencyMaxFrames)
        reply.latencyMinFrames = reply.latencyMaxFrames = std::nullopt;
    return reply;
}

}  // namespace vt::airplay_tool
