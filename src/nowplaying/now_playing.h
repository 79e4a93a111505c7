// The desktop's media players merged into one NowPlayingInfo: which player is
// the active one, what it plays, where it is in the track and its artwork.
// Everything here runs on the main queue; the bus reports from its own thread
// and artwork is staged on a work queue, and both hop back here. A track
// without artwork of its own gets the player's icon. Every
// failure is silent: with no bus or no player there is simply no track.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "dispatch/main_queue.h"
#include "nowplaying/artwork_stager.h"
#include "nowplaying/media_player_bus.h"
#include "nowplaying/now_playing_info.h"

namespace vt::nowplaying {

// Where a track is at `now`, carried on from the last report.
std::optional<double> elapsedAt(const NowPlayingInfo& info, double now);

class NowPlaying {
  public:
    // `bus` must outlive this object. Artwork is staged on `artworkQueue`
    // (a serial queue: staging keeps one file at a time) through `stager`.
    NowPlaying(MediaPlayerBus& bus, dispatch::MainQueue& main, dispatch::WorkQueue& artworkQueue,
               std::shared_ptr<ArtworkStager> stager);
    ~NowPlaying();
    NowPlaying(const NowPlaying&) = delete;
    NowPlaying& operator=(const NowPlaying&) = delete;

    // The record after each change, or nothing when no player has a title.
    std::function<void(const std::optional<NowPlayingInfo>&)> onChange;

    void start();
    void stop();
    const std::optional<NowPlayingInfo>& current() const { return current_; }

    // Sent to the active player only when it says it can do that.
    void send(PlayerCommand command);
    // Seconds from the track's start; below zero means the start.
    void seek(double seconds);

    static constexpr double skipSeconds = 15.0;

  private:
    struct Player {
        std::optional<std::string> desktopEntry;
        TrackMetadata metadata;
        PlaybackStatus status = PlaybackStatus::stopped;
        std::optional<double> position;
        double positionAt = 0;
        double rate = 1.0;
        PlayerAbilities abilities;
        uint64_t playingOrder = 0;  // when it last began to play; higher is later
    };

    void take(PlayerReport report);
    void forget(const std::string& busName);
    const std::string* activeName() const;
    void republish();
    void stageArtwork(const std::string& url, const std::string& desktopEntry);

    MediaPlayerBus& bus_;
    dispatch::MainQueue& main_;
    dispatch::WorkQueue& artworkQueue_;
    std::shared_ptr<ArtworkStager> stager_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    std::map<std::string, Player> players_;
    uint64_t nextPlayingOrder_ = 1;
    bool running_ = false;
    std::optional<std::string> artworkKey_;   // the URL and player last asked to be staged
    std::optional<std::string> artworkFile_;  // what staging gave for it
    std::optional<NowPlayingInfo> current_;
};

}  // namespace vt::nowplaying
