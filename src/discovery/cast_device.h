// A Google Cast device as discovery knows it.
#pragma once

#include <optional>
#include <string>

#include "discovery/txt_record.h"

namespace vt::discovery {

struct CastDevice {
    static constexpr int unresolvedPort = 8009;

    std::string id;                   // TXT "id": stays when the TV is renamed
    std::string name;                 // TXT "fn", else the instance name
    std::string model;                // TXT "md", possibly empty
    std::optional<std::string> host;  // dotted IPv4, once resolved
    int port = unresolvedPort;
    // What the TV plays now (TXT "rs" while "st" is "1").
    std::optional<std::string> busyWith;

    bool operator==(const CastDevice&) const = default;

    // Nothing without a TXT "id": such a device cannot be told apart.
    static std::optional<CastDevice> from(const std::string& instanceName, const TxtRecord& txt);
};

}  // namespace vt::discovery
