#include "airplay_tool/dmap.h"

#include <charconv>

namespace vt::airplay_tool {

namespace {

void putU32(std::string& out, uint32_t v) {
    for (int i = 3; i >= 0; --i) out += static_cast<char>((v >> (8 * i)) & 0xff);
}

void putEntry(std::string& out, const char* code, std::string_view data) {
    out.append(code, 4);
    putU32(out, static_cast<uint32_t>(data.size()));
    out.append(data);
}

constexpr uint64_t kFnvOffset = 1469598103934665603ULL;
constexpr uint64_t kFnvPrime = 1099511628211ULL;
constexpr size_t kEntryHeaderBytes = 8;

}  // namespace

uint64_t itemIDNumber(std::string_view itemID) {
    uint64_t value = 0;
    auto [ptr, ec] = std::from_chars(itemID.data(), itemID.data() + itemID.size(), value);
    if (ec == std::errc() && ptr == itemID.data() + itemID.size() && !itemID.empty()) return value;
    uint64_t hash = kFnvOffset;
    for (unsigned char c : itemID) hash = (hash ^ c) * kFnvPrime;
    return hash;
}

std::string buildDmapItem(const TrackInfo& info) {
    std::string body;
    putEntry(body, "minm", info.title);
    putEntry(body, "asar", info.artist);
    putEntry(body, "asal", info.album);
    if (!info.itemID.empty()) {
        const uint64_t id = itemIDNumber(info.itemID);
        std::string bytes;
        putU32(bytes, static_cast<uint32_t>(id >> 32));
        putU32(bytes, static_cast<uint32_t>(id));
        putEntry(body, "mper", bytes);
    }
    std::string out;
    putEntry(out, "mlit", body);
    return out;
}

std::optional<std::vector<DmapEntry>> parseDmapEntries(std::string_view bytes, size_t maxEntries) {
    std::vector<DmapEntry> entries;
    while (!bytes.empty()) {
        if (bytes.size() < kEntryHeaderBytes || entries.size() >= maxEntries) return std::nullopt;
        const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
        const uint64_t length =
            uint64_t{p[4]} << 24 | uint64_t{p[5]} << 16 | uint64_t{p[6]} << 8 | p[7];
        if (length > bytes.size() - kEntryHeaderBytes) return std::nullopt;
        entries.push_back({std::string(bytes.substr(0, 4)),
                           std::string(bytes.substr(kEntryHeaderBytes, length))});
        bytes.remove_prefix(kEntryHeaderBytes + length);
    }
    return entries;
}

}  // namespace vt::airplay_tool
