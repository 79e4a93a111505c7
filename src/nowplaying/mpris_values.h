// Reading MPRIS property dictionaries out of sd-bus messages. What players put
// on the bus is not trusted: texts are cut to a bounded length, lists to a
// bounded count, values of an unexpected type are skipped.
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <optional>
#include <string>

#include "nowplaying/media_player_bus.h"

namespace vt::nowplaying {

inline constexpr size_t maxTrackTextCharacters = 512;
inline constexpr size_t maxArtworkURLBytes = 4096;
inline constexpr size_t maxArtists = 8;

// Player properties the message holds at its read position.
struct PlayerProperties {
    std::optional<TrackMetadata> metadata;
    std::optional<PlaybackStatus> status;
    std::optional<double> position;  // seconds
    std::optional<double> rate;
    // Each of CanControl, CanPlay, ... that was present.
    std::optional<bool> canControl, canPlay, canPause, canGoNext, canGoPrevious, canSeek;
};

// Reads an "a{sv}" of org.mpris.MediaPlayer2.Player properties. False when the
// message does not hold one.
bool readPlayerProperties(sd_bus_message* m, PlayerProperties& out);
// Reads a variant holding a microsecond position ("x"), in seconds.
std::optional<double> readPositionVariant(sd_bus_message* m);
// Reads a variant holding a string (DesktopEntry), bounded.
std::optional<std::string> readStringVariant(sd_bus_message* m, size_t maxCharacters);

std::optional<PlaybackStatus> playbackStatusFromText(const std::string& text);

}  // namespace vt::nowplaying
