// The SET_PARAMETER requests that tell a receiver about the track: DMAP
// text, the cover, the progress. AirPlay 1 and 2 receivers take them alike.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "airplay_tool/command_parser.h"

namespace vt::airplay_tool {

// Which SET_PARAMETER kinds the receiver's `md` allows.
struct MetadataSupport {
    bool text = true;
    bool artwork = true;
    bool progress = true;
};
// An empty `md` (the receiver's TXT not handed to us) allows everything: a
// receiver without metadata answers such requests and ignores them.
MetadataSupport metadataSupportFrom(const std::string& md);
// Whether a receiver's comma list (TXT `md`, `et`) holds this item.
bool listHas(const std::string& list, const std::string& item);

struct ParameterRequest {
    std::string contentType;
    std::string body;
    bool stamped = false;  // carries RTP-Info with the RTP time heard now
};
// What a SENDMETA (or a START with the track) sends. The progress goes only
// once the stream is heard, `rtpNow` being its RTP time at this moment.
std::vector<ParameterRequest> trackParameters(const Command& command, MetadataSupport support,
                                              std::optional<uint32_t> rtpNow);

}  // namespace vt::airplay_tool
