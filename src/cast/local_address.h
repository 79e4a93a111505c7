// The address of this computer on the path to a host: what a TV must fetch
// our stream from.
#pragma once

#include <optional>
#include <string>

namespace vt::cast {

// Dotted IPv4, or nothing when no route reaches `host`.
std::optional<std::string> localAddressReaching(const std::string& host);

}  // namespace vt::cast
