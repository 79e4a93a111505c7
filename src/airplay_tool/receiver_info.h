// What an AirPlay 2 receiver says of itself in its answer to GET /info: a
// binary property list, read through libplist. Only the fields the routes
// use are kept; anything else in it, or a list that does not parse, is no
// concern of ours beyond refusing it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vt::airplay_tool {

inline constexpr size_t kMaxInfoPlistBytes = 256 * 1024;

struct ReceiverInfo {
    std::optional<uint64_t> features;     // the same bits as the TXT's `features`
    std::optional<uint64_t> statusFlags;  // the same bits as the TXT's `flags`
    std::string model;
    std::string deviceID;

    // Flag 0x8: the receiver shows a PIN for pairing.
    bool wantsPin() const;
};

// Nothing for anything but a binary plist whose root is a dictionary.
std::optional<ReceiverInfo> parseReceiverInfo(std::string_view body);

}  // namespace vt::airplay_tool
