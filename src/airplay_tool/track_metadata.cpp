#include "airplay_tool/track_metadata.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "airplay_tool/artwork.h"
#include "airplay_tool/dmap.h"
#include "airplay_tool/stream_timeline.h"

namespace vt::airplay_tool {

bool listHas(const std::string& list, const std::string& item) {
    size_t pos = 0;
    while (pos <= list.size()) {
        size_t comma = list.find(',', pos);
        if (comma == std::string::npos) comma = list.size();
        if (list.compare(pos, comma - pos, item) == 0) return true;
        pos = comma + 1;
    }
    return false;
}

MetadataSupport metadataSupportFrom(const std::string& md) {
    if (md.empty()) return {};
    return {listHas(md, "0"), listHas(md, "1"), listHas(md, "2")};
}

std::vector<ParameterRequest> trackParameters(const Command& command, MetadataSupport support,
                                              std::optional<uint32_t> rtpNow) {
    std::vector<ParameterRequest> out;
    if (support.text) {
        TrackInfo info{command.field("TITLE"), command.field("ARTIST"), command.field("ALBUM"),
                       command.field("ITEMID")};
        out.push_back({"application/x-dmap-tagged", buildDmapItem(info), true});
    }
    if (support.artwork) {
        std::optional<Artwork> art;
        if (auto file = command.field("ARTWORKFILE"); !file.empty()) art = loadArtworkFile(file);
        if (!art)
            if (auto inline_ = command.field("ARTWORK"); !inline_.empty())
                art = artworkFromBase64(inline_);
        if (art) out.push_back({art->mimeType, art->bytes, true});
    }
    if (support.progress && rtpNow) {
        const double durationSec = std::strtod(command.field("DURATION").c_str(), nullptr);
        const double progressSec = std::strtod(command.field("PROGRESS").c_str(), nullptr);
        if (durationSec > 0 && std::isfinite(durationSec) && std::isfinite(progressSec)) {
            const auto frames = [](double s) {
                return static_cast<uint32_t>(std::llround(std::max(0.0, s) * kRaopSampleRate));
            };
            const uint32_t start = *rtpNow - frames(progressSec);
            out.push_back({"text/parameters",
                           "progress: " + std::to_string(start) + "/" + std::to_string(*rtpNow) +
                               "/" + std::to_string(start + frames(durationSec)) + "\r\n",
                           false});
        }
    }
    return out;
}

}  // namespace vt::airplay_tool
