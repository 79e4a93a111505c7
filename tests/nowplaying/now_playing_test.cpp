#include "nowplaying/now_playing.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "dispatch/test_queues.h"
#include "dispatch/virtual_main_queue.h"
#include "nowplaying/fake_media_player_bus.h"
#include "support/test_env.h"

namespace vt::nowplaying {
namespace {

constexpr const char* kMpv = "org.mpris.MediaPlayer2.mpv";
constexpr const char* kOther = "org.mpris.MediaPlayer2.other";

PlayerReport track(const std::string& bus, const std::string& title, PlaybackStatus status,
                   std::optional<double> position = std::nullopt) {
    PlayerReport r;
    r.busName = bus;
    r.metadata = TrackMetadata{"/track/" + title, title, "Artist", "Album", "", 200.0};
    r.status = status;
    r.position = position;
    r.abilities = PlayerAbilities{true, true, true, true, false, true};
    return r;
}

PlayerReport status(const std::string& bus, PlaybackStatus s) {
    PlayerReport r;
    r.busName = bus;
    r.status = s;
    return r;
}

class NowPlayingTest : public ::testing::Test {
  protected:
    NowPlayingTest() {
        np.onChange = [this](const std::optional<NowPlayingInfo>& info) {
            ++changes;
            last = info;
        };
        np.start();
    }
    void say(PlayerReport r) {
        bus.report(std::move(r));
        main.drain();
    }
    std::string activeTitle() const { return np.current() ? np.current()->title : ""; }

    dispatch::VirtualMainQueue main;
    dispatch::ImmediateWorkQueue artwork;
    FakeMediaPlayerBus bus;
    NowPlaying np{bus, main, artwork,
                  std::make_shared<ArtworkStager>(
                      std::filesystem::temp_directory_path() / "vt-np-unused", nullptr)};
    int changes = 0;
    std::optional<NowPlayingInfo> last;
};

TEST_F(NowPlayingTest, LastToStartPlayingIsActiveAndPausedOnesOnlyWhenNothingPlays) {
    say(track(kMpv, "One", PlaybackStatus::playing));
    EXPECT_EQ(activeTitle(), "One");
    EXPECT_EQ(last->bundleID, kMpv);  // no desktop entry: the bus name
    say(track(kOther, "Two", PlaybackStatus::paused));
    EXPECT_EQ(activeTitle(), "One");
    say(status(kOther, PlaybackStatus::playing));
    EXPECT_EQ(activeTitle(), "Two");
    // The later one stops: the one still playing takes over.
    say(status(kOther, PlaybackStatus::stopped));
    EXPECT_EQ(activeTitle(), "One");
    // Both paused: the one that played last.
    say(status(kOther, PlaybackStatus::playing));
    say(status(kOther, PlaybackStatus::paused));
    say(status(kMpv, PlaybackStatus::paused));
    EXPECT_EQ(activeTitle(), "Two");
    EXPECT_FALSE(last->playing);
    // It quits: the other is left.
    bus.gone(kOther);
    main.drain();
    EXPECT_EQ(activeTitle(), "One");
    PlayerReport entry;
    entry.busName = kMpv;
    entry.desktopEntry = "mpv";
    say(entry);
    EXPECT_EQ(last->bundleID, "mpv");
    // No title counts as nothing playing.
    PlayerReport untitled = track(kMpv, "", PlaybackStatus::playing);
    say(untitled);
    EXPECT_FALSE(np.current());
    EXPECT_FALSE(last);
}

TEST_F(NowPlayingTest, PositionCarriesOnWhilePlayingAndFreezesAtPause) {
    say(track(kMpv, "One", PlaybackStatus::playing, 10.0));
    const double t0 = main.now();
    EXPECT_DOUBLE_EQ(*last->elapsed, 10.0);
    EXPECT_DOUBLE_EQ(*elapsedAt(*last, t0 + 2.5), 12.5);
    main.advance(4.0);
    // A pause without a position: frozen where the sound stopped.
    const int before = changes;
    say(status(kMpv, PlaybackStatus::paused));
    EXPECT_EQ(changes, before + 1);
    EXPECT_DOUBLE_EQ(*last->elapsed, 14.0);
    EXPECT_DOUBLE_EQ(*elapsedAt(*last, main.now() + 30), 14.0);
    // The player's own report corrects the guess.
    PlayerReport seeked;
    seeked.busName = kMpv;
    seeked.position = 13.9;
    say(seeked);
    EXPECT_DOUBLE_EQ(*last->elapsed, 13.9);
    // Play on: runs from there, never past the end.
    say(status(kMpv, PlaybackStatus::playing));
    EXPECT_DOUBLE_EQ(*elapsedAt(*last, main.now() + 1), 14.9);
    EXPECT_DOUBLE_EQ(*elapsedAt(*last, main.now() + 1000), 200.0);
    // A new track without a position starts at 0.
    main.advance(3.0);
    say(track(kMpv, "Two", PlaybackStatus::playing));
    EXPECT_DOUBLE_EQ(*last->elapsed, 0.0);
}

TEST_F(NowPlayingTest, CommandsGoToTheActivePlayerOnlyWhereItCan) {
    np.send(PlayerCommand::play);  // no player: nothing
    EXPECT_TRUE(bus.calls.empty());
    say(track(kMpv, "One", PlaybackStatus::playing));
    np.send(PlayerCommand::togglePlayPause);
    np.send(PlayerCommand::previousTrack);  // cannot go back: dropped
    np.send(PlayerCommand::goBackFifteenSeconds);
    np.seek(-3);
    np.seek(500);  // past the end: dropped
    using M = PlayerCall::Method;
    ASSERT_EQ(bus.calls.size(), 3u);
    EXPECT_EQ(bus.calls[0].first, kMpv);
    EXPECT_EQ(bus.calls[0].second.method, M::playPause);
    EXPECT_EQ(bus.calls[1].second.method, M::seekBy);
    EXPECT_DOUBLE_EQ(bus.calls[1].second.seconds, -15.0);
    EXPECT_EQ(bus.calls[2].second.method, M::setPosition);
    EXPECT_DOUBLE_EQ(bus.calls[2].second.seconds, 0.0);
    EXPECT_EQ(bus.calls[2].second.trackID, "/track/One");
    np.stop();
    EXPECT_FALSE(np.current());
    np.send(PlayerCommand::play);
    EXPECT_EQ(bus.calls.size(), 3u);
}

TEST(NowPlayingArtwork, TheActiveTracksImageIsStagedAndGoesWithIt) {
    vt::test::TempDir dir;  // ours alone, as staging beneath it wants
    std::filesystem::create_directories(dir / "src");
    const std::string image = std::string("\x89PNG\r\n\x1A\n", 8) + "pixels";
    std::ofstream(dir / "src" / "cover 1.png") << image;

    dispatch::VirtualMainQueue main;
    dispatch::ImmediateWorkQueue work;
    FakeMediaPlayerBus bus;
    NowPlaying np(bus, main, work, std::make_shared<ArtworkStager>(dir / "staged", nullptr));
    np.start();
    PlayerReport r = track(kMpv, "One", PlaybackStatus::playing);
    r.metadata->artURL = "file://" + (dir.path() / "src" / "cover%201.png").string();
    bus.report(r);
    main.drain();
    ASSERT_TRUE(np.current() && np.current()->artworkFile);
    EXPECT_TRUE(std::filesystem::exists(*np.current()->artworkFile));
    const std::string staged = *np.current()->artworkFile;
    bus.gone(kMpv);
    main.drain();
    EXPECT_FALSE(np.current());
    EXPECT_FALSE(std::filesystem::exists(staged));
}

}  // namespace
}  // namespace vt::nowplaying
