#include "nowplaying/now_playing.h"

#include "nowplaying/app_icon.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace vt::nowplaying {

std::optional<double> elapsedAt(const NowPlayingInfo& info, double now) {
    if (!info.elapsed) return std::nullopt;
    double at = *info.elapsed;
    if (info.playing && info.elapsedAt) at += std::max(0.0, now - *info.elapsedAt);
    if (info.duration && *info.duration > 0) at = std::min(at, *info.duration);
    return std::max(at, 0.0);
}

NowPlaying::NowPlaying(MediaPlayerBus& bus, dispatch::MainQueue& main,
                       dispatch::WorkQueue& artworkQueue, std::shared_ptr<ArtworkStager> stager)
    : bus_(bus), main_(main), artworkQueue_(artworkQueue), stager_(std::move(stager)) {}

NowPlaying::~NowPlaying() {
    stop();
    *alive_ = false;
}

void NowPlaying::start() {
    if (running_) return;
    running_ = true;
    std::weak_ptr<bool> alive = alive_;
    dispatch::MainQueue& main = main_;
    MediaPlayerBus::Listener listener;
    listener.report = [this, alive, &main](PlayerReport report) {
        main.post([this, alive, report = std::move(report)]() mutable {
            if (auto a = alive.lock(); a && *a && running_) take(std::move(report));
        });
    };
    listener.gone = [this, alive, &main](std::string busName) {
        main.post([this, alive, busName = std::move(busName)] {
            if (auto a = alive.lock(); a && *a && running_) forget(busName);
        });
    };
    bus_.start(std::move(listener));
}

void NowPlaying::stop() {
    if (!running_) return;
    running_ = false;
    bus_.stop();
    players_.clear();
    republish();
}

void NowPlaying::take(PlayerReport report) {
    const double now = main_.now();
    Player& p = players_[report.busName];
    if (report.desktopEntry) p.desktopEntry = report.desktopEntry;
    if (report.rate && std::isfinite(*report.rate) && *report.rate >= 0) p.rate = *report.rate;
    if (report.abilities) p.abilities = *report.abilities;
    if (report.metadata && *report.metadata != p.metadata) {
        const bool newTrack = report.metadata->trackID != p.metadata.trackID ||
                              report.metadata->title != p.metadata.title;
        p.metadata = std::move(*report.metadata);
        // Players do not always say where a new track starts; the start is
        // the best guess until they are asked.
        if (newTrack && !report.position) {
            p.position = 0.0;
            p.positionAt = now;
        }
    }
    if (report.status && *report.status != p.status) {
        // The position was only reported, never signalled: bring it up to
        // the moment the status changed, so a pause freezes it where the
        // sound stopped.
        if (p.position && !report.position && p.status == PlaybackStatus::playing) {
            *p.position += std::max(0.0, now - p.positionAt) * p.rate;
            p.positionAt = now;
        }
        if (*report.status == PlaybackStatus::playing) p.playingOrder = nextPlayingOrder_++;
        p.status = *report.status;
    }
    if (report.position && std::isfinite(*report.position)) {
        p.position = std::max(0.0, *report.position);
        p.positionAt = now;
    }
    republish();
}

void NowPlaying::forget(const std::string& busName) {
    if (players_.erase(busName) > 0) republish();
}

const std::string* NowPlaying::activeName() const {
    // The player that most recently began to play; a paused one only when
    // nothing plays; a stopped one never.
    const std::string* best = nullptr;
    const Player* bestPlayer = nullptr;
    for (const auto& [name, p] : players_) {
        if (p.status == PlaybackStatus::stopped) continue;
        if (bestPlayer != nullptr) {
            const bool playing = p.status == PlaybackStatus::playing;
            const bool bestPlaying = bestPlayer->status == PlaybackStatus::playing;
            if (playing != bestPlaying ? !playing : p.playingOrder <= bestPlayer->playingOrder)
                continue;
        }
        best = &name;
        bestPlayer = &p;
    }
    return best;
}

void NowPlaying::republish() {
    std::optional<NowPlayingInfo> info;
    const std::string* name = activeName();
    if (name != nullptr && !players_.at(*name).metadata.title.empty()) {
        const Player& p = players_.at(*name);
        NowPlayingInfo i;
        i.title = p.metadata.title;
        i.artist = p.metadata.artist;
        i.album = p.metadata.album;
        i.playing = p.status == PlaybackStatus::playing;
        i.bundleID = p.desktopEntry && !p.desktopEntry->empty() ? *p.desktopEntry : *name;
        i.duration = p.metadata.length;
        if (p.position) {
            i.elapsed = p.position;
            i.elapsedAt = p.positionAt;
        }
        stageArtwork(p.metadata.artURL, p.desktopEntry.value_or(""));
        i.artworkFile = artworkFile_;
        info = std::move(i);
    } else {
        stageArtwork("", "");
    }
    if (info == current_) return;
    current_ = std::move(info);
    if (onChange) onChange(current_);
}

void NowPlaying::stageArtwork(const std::string& url, const std::string& desktopEntry) {
    const std::string key = url + '\n' + desktopEntry;
    if (artworkKey_ == key) return;
    artworkKey_ = key;
    artworkFile_.reset();
    std::weak_ptr<bool> alive = alive_;
    dispatch::MainQueue& main = main_;
    artworkQueue_.async([this, alive, &main, url, desktopEntry, key, stager = stager_] {
        std::optional<std::string> file;
        if (url.empty()) {
            stager->clear();
        } else {
            file = stager->stage(url);
        }
        // A track without artwork shows the player's icon.
        if (!file && !desktopEntry.empty())
            if (auto icon = appIconFile(desktopEntry)) file = stager->stageFallback(*icon);
        main.post([this, alive, key, file = std::move(file)] {
            auto a = alive.lock();
            if (!a || !*a || artworkKey_ != key || artworkFile_ == file) return;
            artworkFile_ = file;
            republish();
        });
    });
}

void NowPlaying::send(PlayerCommand command) {
    const std::string* name = activeName();
    if (name == nullptr) return;
    const Player& p = players_.at(*name);
    const PlayerAbilities& can = p.abilities;
    using M = PlayerCall::Method;
    std::optional<PlayerCall> call;
    switch (command) {
        case PlayerCommand::play:
            if (can.canPlay) call = PlayerCall{M::play};
            break;
        case PlayerCommand::pause:
            if (can.canPause) call = PlayerCall{M::pause};
            break;
        case PlayerCommand::togglePlayPause:
            if (p.status == PlaybackStatus::playing ? can.canPause : can.canPlay)
                call = PlayerCall{M::playPause};
            break;
        case PlayerCommand::nextTrack:
            if (can.canGoNext) call = PlayerCall{M::next};
            break;
        case PlayerCommand::previousTrack:
            if (can.canGoPrevious) call = PlayerCall{M::previous};
            break;
        case PlayerCommand::skipFifteenSeconds:
            if (can.canSeek) call = PlayerCall{M::seekBy, skipSeconds};
            break;
        case PlayerCommand::goBackFifteenSeconds:
            if (can.canSeek) call = PlayerCall{M::seekBy, -skipSeconds};
            break;
    }
    if (call) bus_.call(*name, *call);
}

void NowPlaying::seek(double seconds) {
    const std::string* name = activeName();
    if (name == nullptr || !std::isfinite(seconds)) return;
    const Player& p = players_.at(*name);
    if (!p.abilities.canSeek || p.metadata.trackID.empty()) return;
    const double to = std::max(seconds, 0.0);
    // A player ignores a position past the end; so do we.
    if (p.metadata.length && to > *p.metadata.length) return;
    bus_.call(*name, PlayerCall{PlayerCall::Method::setPosition, to, p.metadata.trackID});
}

}  // namespace vt::nowplaying
