// DMAP, the tagged binary form of track metadata AirPlay 1 receivers take:
// a 4-character code, a 32-bit big-endian length, the data.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vt::airplay_tool {

struct TrackInfo {
    std::string title;
    std::string artist;
    std::string album;
    std::string itemID;
};

// An "mlit" listing item holding minm, asar, asal and, with an item id, mper
// (the id as a number when it is one, else a 64-bit hash of its text).
std::string buildDmapItem(const TrackInfo& info);

struct DmapEntry {
    std::string code;
    std::string data;
};

// The entries inside one container (e.g. the body of an mlit). Nothing when
// a length runs past the end or there are more than `maxEntries`.
std::optional<std::vector<DmapEntry>> parseDmapEntries(std::string_view bytes,
                                                       size_t maxEntries = 256);

uint64_t itemIDNumber(std::string_view itemID);

}  // namespace vt::airplay_tool
