// What the computer is playing, as the phone shows it.
#pragma once

#include <optional>
#include <string>

namespace vt::remote {

struct NowPlayingState {
    std::string title;
    std::string artist;
    std::string album;
    bool playing = false;
    std::optional<std::string> artworkKey;  // matches the key of an artwork message
    std::optional<double> duration;         // seconds
    std::optional<double> elapsed;          // seconds
    std::optional<double> elapsedAt;        // the remote clock's time at which elapsed held
    std::optional<std::string> appName;
    bool operator==(const NowPlayingState&) const = default;
};

}  // namespace vt::remote
