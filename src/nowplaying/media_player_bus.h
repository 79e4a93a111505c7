// The desktop's media players as NowPlaying sees them: reports of what each
// player says about itself, and calls to it. MprisBus is the session bus
// behind it; FakeMediaPlayerBus scripts it for tests.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace vt::nowplaying {

enum class PlaybackStatus { stopped, paused, playing };

struct TrackMetadata {
    std::string trackID;  // mpris:trackid, needed to set an absolute position
    std::string title, artist, album, artURL;
    std::optional<double> length;  // seconds
    bool operator==(const TrackMetadata&) const = default;
};

struct PlayerAbilities {
    bool canControl = false, canPlay = false, canPause = false;
    bool canGoNext = false, canGoPrevious = false, canSeek = false;
    bool operator==(const PlayerAbilities&) const = default;
};

// One player's news: only what it told this time is set.
struct PlayerReport {
    std::string busName;  // org.mpris.MediaPlayer2.<player>[.instance]
    std::optional<std::string> desktopEntry;
    std::optional<TrackMetadata> metadata;
    std::optional<PlaybackStatus> status;
    std::optional<double> position;  // seconds, read or from a seek
    std::optional<double> rate;
    std::optional<PlayerAbilities> abilities;
};

struct PlayerCall {
    enum class Method { play, pause, playPause, next, previous, seekBy, setPosition };
    Method method = Method::playPause;
    double seconds = 0;   // seekBy: the offset; setPosition: the target
    std::string trackID;  // setPosition
};

class MediaPlayerBus {
  public:
    struct Listener {
        std::function<void(PlayerReport)> report;
        std::function<void(std::string busName)> gone;
    };
    virtual ~MediaPlayerBus() = default;
    // The listener is called from the bus's own thread. A bus that cannot be
    // reached stays silent.
    virtual void start(Listener listener) = 0;
    // After stop returns the listener is never called again.
    virtual void stop() = 0;
    // Fire and forget; a player that is gone or refuses is not an error.
    virtual void call(const std::string& busName, const PlayerCall& call) = 0;
};

}  // namespace vt::nowplaying
