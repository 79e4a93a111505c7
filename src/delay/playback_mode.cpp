#include "delay/playback_mode.h"

namespace vt::delay {

std::string_view title(PlaybackMode mode) {
    return mode == PlaybackMode::instant ? "Instant" : "Together";
}

PlaybackMode playbackModeFromStored(std::string_view stored) {
    return stored == "Instant" ? PlaybackMode::instant : PlaybackMode::together;
}

}  // namespace vt::delay
