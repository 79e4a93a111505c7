// What the computer is playing, as the model and every sender take it.
#pragma once

#include <optional>
#include <string>

namespace vt::nowplaying {

struct NowPlayingInfo {
    std::string title, artist, album;  // empty when unknown
    bool playing = false;
    std::string bundleID;                     // the player's desktop entry, else its bus name
    std::optional<std::string> artworkFile;   // the staged image
    std::optional<double> duration, elapsed;  // seconds
    std::optional<double> elapsedAt;          // main-queue seconds at which elapsed held
    bool hasTrack() const { return !title.empty(); }
    bool operator==(const NowPlayingInfo&) const = default;
};

// What the user may ask of the active player.
enum class PlayerCommand {
    play,
    pause,
    togglePlayPause,
    nextTrack,
    previousTrack,
    skipFifteenSeconds,
    goBackFifteenSeconds,
};

}  // namespace vt::nowplaying
