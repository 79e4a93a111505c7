#include "nowplaying/mpris_values.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace vt::nowplaying {
namespace {

// Messages are built on a bus that is started on one end of a socket pair and
// never talks: enough for sd-bus to make, seal and read them back.
class MprisValuesTest : public ::testing::Test {
  protected:
    MprisValuesTest() {
        ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_);
        sd_bus_new(&bus_);
        sd_bus_set_fd(bus_, fds_[0], fds_[0]);
        sd_bus_set_anonymous(bus_, 1);
        sd_bus_start(bus_);
    }
    ~MprisValuesTest() override {
        for (sd_bus_message* m : messages_) sd_bus_message_unref(m);
        ::close(fds_[1]);
        sd_bus_close_unref(bus_);  // nothing to flush: it never authenticated
    }
    sd_bus_message* message() {
        sd_bus_message* m = nullptr;
        sd_bus_message_new_signal(bus_, &m, "/org/mpris/MediaPlayer2",
                                  "org.freedesktop.DBus.Properties", "PropertiesChanged");
        messages_.push_back(m);
        return m;
    }
    static sd_bus_message* sealed(sd_bus_message* m) {
        sd_bus_message_seal(m, 1, 0);
        sd_bus_message_rewind(m, 1);
        return m;
    }

    int fds_[2] = {-1, -1};
    sd_bus* bus_ = nullptr;
    std::vector<sd_bus_message*> messages_;
};

TEST_F(MprisValuesTest, ReadsWhatPlayersSendAndBoundsIt) {
    sd_bus_message* m = message();
    const std::string longTitle(5000, 'x');
    sd_bus_message_open_container(m, 'a', "{sv}");
    sd_bus_message_append(m, "{sv}", "PlaybackStatus", "s", "Paused");
    sd_bus_message_append(m, "{sv}", "Position", "x", int64_t(12'500'000));
    sd_bus_message_append(m, "{sv}", "CanSeek", "b", 1);
    sd_bus_message_open_container(m, 'e', "sv");
    sd_bus_message_append(m, "s", "Metadata");
    sd_bus_message_open_container(m, 'v', "a{sv}");
    sd_bus_message_append(m, "a{sv}", 6, "xesam:title", "s", longTitle.c_str(), "xesam:artist",
                          "as", 10, "A", "B", "C", "D", "E", "F", "G", "H", "I", "J",
                          "mpris:trackid", "o", "/org/mpv/Track/1", "mpris:length", "t",
                          uint64_t(200'000'000), "mpris:artUrl", "s", "file:///c.png",
                          "xesam:album", "i", 7);  // an album that is not text
    sd_bus_message_close_container(m);
    sd_bus_message_close_container(m);
    sd_bus_message_close_container(m);

    PlayerProperties p;
    ASSERT_TRUE(readPlayerProperties(sealed(m), p));
    EXPECT_EQ(p.status, PlaybackStatus::paused);
    EXPECT_DOUBLE_EQ(*p.position, 12.5);
    EXPECT_EQ(p.canSeek, true);
    EXPECT_FALSE(p.canPlay);
    ASSERT_TRUE(p.metadata);
    EXPECT_EQ(p.metadata->title.size(), maxTrackTextCharacters);
    EXPECT_EQ(p.metadata->artist, "A, B, C, D, E, F, G, H");
    EXPECT_EQ(p.metadata->trackID, "/org/mpv/Track/1");
    EXPECT_DOUBLE_EQ(*p.metadata->length, 200.0);
    EXPECT_EQ(p.metadata->artURL, "file:///c.png");
    EXPECT_EQ(p.metadata->album, "");
}

TEST_F(MprisValuesTest, WrongTypesAreSkippedAndAWrongShapeIsRefused) {
    sd_bus_message* m = message();
    const std::string longURL = "http://x/" + std::string(maxArtworkURLBytes, 'a');
    sd_bus_message_append(m, "a{sv}", 5, "PlaybackStatus", "i", 3, "Position", "s", "soon", "Rate",
                          "d", -2.0, "Metadata", "s", "not a dictionary", "Unknown", "as", 2, "x",
                          "y");
    PlayerProperties p;
    ASSERT_TRUE(readPlayerProperties(sealed(m), p));
    EXPECT_FALSE(p.status || p.position || p.rate || p.metadata);

    sd_bus_message* url = message();
    sd_bus_message_open_container(url, 'a', "{sv}");
    sd_bus_message_open_container(url, 'e', "sv");
    sd_bus_message_append(url, "s", "Metadata");
    sd_bus_message_append(url, "v", "a{sv}", 2, "mpris:artUrl", "s", longURL.c_str(), "xesam:title",
                          "s", "T");
    sd_bus_message_close_container(url);
    sd_bus_message_close_container(url);
    PlayerProperties q;
    ASSERT_TRUE(readPlayerProperties(sealed(url), q));
    EXPECT_EQ(q.metadata->artURL, "");  // cut short it would name something else
    EXPECT_EQ(q.metadata->title, "T");

    sd_bus_message* shape = message();
    sd_bus_message_append(shape, "as", 1, "PlaybackStatus");
    PlayerProperties r;
    EXPECT_FALSE(readPlayerProperties(sealed(shape), r));
}

}  // namespace
}  // namespace vt::nowplaying
