// What the desktop plays: the model keeps the record, makes the track every
// sender takes from it, and hands that to the AirPlay, Cast and guest senders
// whenever the track (not merely its position) changes.
#include <cstdio>
#include <functional>
#include <utility>

#include "model/app_model.h"
#include "nowplaying/http_fetch.h"

namespace vt::model {

namespace {

sendspin::TrackInfo sendspinTrack(const airplay::AirPlaySender::Metadata& t) {
    return sendspin::TrackInfo{t.title, t.artist, t.album, t.artworkFile};
}

}  // namespace

void AppModel::enableNowPlaying(nowplaying::MediaPlayerBus& bus, dispatch::WorkQueue& artworkQueue,
                                std::filesystem::path artworkDir) {
    if (nowPlaying_) return;
    artworkQueue_ = &artworkQueue;
    auto stager = std::make_shared<nowplaying::ArtworkStager>(
        std::move(artworkDir), [](const std::string& url, size_t maxBytes) {
            return nowplaying::fetchHttp(url, maxBytes);
        });
    nowPlaying_ =
        std::make_unique<nowplaying::NowPlaying>(bus, main_, artworkQueue, std::move(stager));
    nowPlaying_->onChange = [this](const std::optional<nowplaying::NowPlayingInfo>& info) {
        nowPlayingChanged(info);
    };
    hookGuestsToNowPlaying();
    nowPlaying_->start();
}

std::optional<airplay::AirPlaySender::Metadata> AppModel::currentTrack() const {
    if (!nowPlayingInfo_ || !nowPlayingInfo_->hasTrack()) return std::nullopt;
    const nowplaying::NowPlayingInfo& i = *nowPlayingInfo_;
    airplay::AirPlaySender::Metadata m;
    m.title = i.title;
    m.artist = i.artist;
    m.album = i.album;
    m.itemID = i.title + "|" + i.artist + "|" + i.album;
    m.artworkFile = i.artworkFile;
    return m;
}

void AppModel::nowPlayingChanged(const std::optional<nowplaying::NowPlayingInfo>& info) {
    nowPlayingInfo_ = info;
    stateChanged();
    const std::optional<airplay::AirPlaySender::Metadata> track = currentTrack();
    if (track == pushedTrack_) return;
    pushedTrack_ = track;
    if (!track || !track->artworkFile || artworkQueue_ == nullptr) {
        pushNowPlaying();
        return;
    }
    // The guests' thumbnail is made off the main thread first, so that the
    // senders find it ready.
    artworkQueue_->async([this, &main = main_, alive = std::weak_ptr<bool>(nowPlayingAlive_),
                          thumbnails = thumbnails_, file = *track->artworkFile] {
        thumbnails->dataURL(file);
        main.post([this, alive, file] {
            auto a = alive.lock();
            if (a && *a && pushedTrack_ && pushedTrack_->artworkFile == file) pushNowPlaying();
        });
    });
}

void AppModel::hookGuestsToNowPlaying() {
    if (!guestParty_ || !nowPlaying_) return;
    guestParty_->setArtworkEncoder(
        [thumbnails = thumbnails_](const std::string& path) { return thumbnails->dataURL(path); });
    pushNowPlaying();
}

void AppModel::pushNowPlaying() {
    const std::optional<airplay::AirPlaySender::Metadata> track = currentTrack();
    const std::optional<sendspin::TrackInfo> info =
        track ? std::optional(sendspinTrack(*track)) : std::nullopt;
    if (airplay_) airplay_->send(track.value_or(airplay::AirPlaySender::Metadata{}));
    if (castSupervisor_) castSupervisor_->send(info);
    if (guestParty_) guestParty_->send(info);
}

std::optional<AppModel::TrackArtwork> AppModel::trackArtwork() const {
    const std::optional<airplay::AirPlaySender::Metadata> track = currentTrack();
    if (!track || !track->artworkFile) return std::nullopt;
    std::optional<std::string> jpeg = thumbnails_->cachedJpeg(*track->artworkFile);
    if (!jpeg) return std::nullopt;
    char key[17];
    std::snprintf(key, sizeof key, "%016zx", std::hash<std::string>{}(*jpeg));
    return TrackArtwork{key, std::move(*jpeg)};
}

void AppModel::mediaCommand(nowplaying::PlayerCommand command) {
    if (nowPlaying_) nowPlaying_->send(command);
}

void AppModel::seekPlayer(double seconds) {
    if (nowPlaying_) nowPlaying_->seek(seconds);
}

}  // namespace vt::model
