// How the outputs are held against each other.
#pragma once

#include <string_view>

namespace vt::delay {

enum class PlaybackMode {
    // Every output in time with every other.
    together,
    // The quick outputs as early as they can be; the slow ones left behind.
    instant,
};

// "Together" or "Instant": the words shown and also the stored value.
std::string_view title(PlaybackMode mode);
// Anything but "Instant" reads as together.
PlaybackMode playbackModeFromStored(std::string_view stored);

}  // namespace vt::delay
