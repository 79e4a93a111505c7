#include "airplay_tool/receiver_info.h"

#include <plist/plist.h>

#include <memory>

namespace vt::airplay_tool {

namespace {

constexpr uint64_t kFlagPinRequired = 0x8;
constexpr std::string_view kBinaryPlistMagic = "bplist00";

struct PlistFree {
    void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};

std::optional<uint64_t> unsignedItem(plist_t dict, const char* key) {
    plist_t item = plist_dict_get_item(dict, key);
    if (!item || plist_get_node_type(item) != PLIST_UINT) return std::nullopt;
    uint64_t value = 0;
    plist_get_uint_val(item, &value);
    return value;
}

std::string stringItem(plist_t dict, const char* key) {
    plist_t item = plist_dict_get_item(dict, key);
    if (!item || plist_get_node_type(item) != PLIST_STRING) return {};
    // By pointer and length: libplist's copying getter asserts (and so
    // aborts) on a string with a NUL inside, which a receiver may send.
    uint64_t length = 0;
    const char* text = plist_get_string_ptr(item, &length);
    return text ? std::string(text, static_cast<size_t>(length)) : std::string();
}

}  // namespace

bool ReceiverInfo::wantsPin() const {
    return statusFlags && (*statusFlags & kFlagPinRequired);
}

std::optional<ReceiverInfo> parseReceiverInfo(std::string_view body) {
    // libplist takes only binary lists of this size and never reads past them.
    if (body.size() > kMaxInfoPlistBytes ||
        body.substr(0, kBinaryPlistMagic.size()) != kBinaryPlistMagic)
        return std::nullopt;
    plist_t raw = nullptr;
    plist_from_bin(body.data(), static_cast<uint32_t>(body.size()), &raw);
    std::unique_ptr<void, PlistFree> root(raw);
    if (!raw || plist_get_node_type(raw) != PLIST_DICT) return std::nullopt;
    ReceiverInfo info;
    info.features = unsignedItem(raw, "features");
    info.statusFlags = unsignedItem(raw, "statusFlags");
    info.model = stringItem(raw, "model");
    info.deviceID = stringItem(raw, "deviceID");
    return info;
}

}  // namespace vt::airplay_tool
