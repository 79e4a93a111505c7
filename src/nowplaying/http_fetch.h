// One image over http or https through libcurl: at most `maxBytes`, within
// the time-out, http and https only, even across redirects.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace vt::nowplaying {

inline constexpr long artworkFetchTimeoutMs = 5000;

std::optional<std::string> fetchHttp(const std::string& url, size_t maxBytes,
                                     long timeoutMs = artworkFetchTimeoutMs);

}  // namespace vt::nowplaying
