#include "guests/guest_link.h"

#include <gtest/gtest.h>

namespace vt::guests {
namespace {

TEST(GuestLink, FormsRoundTripThroughTheirParsers) {
    const GuestLink link{"192.168.1.20", 7766};
    EXPECT_EQ(link.joinURL(), "http://192.168.1.20:7766/join");
    EXPECT_EQ(link.appURL(), "vellatone://guest?host=192.168.1.20&port=7766");
    EXPECT_EQ(link.socketURL("abcdefgh-1"), "ws://192.168.1.20:7766/guest/abcdefgh-1/sendspin");
    EXPECT_EQ(link.statusURL("abcdefgh-1"), "http://192.168.1.20:7766/guest/abcdefgh-1/status");
    EXPECT_EQ(GuestLink::fromJoinURL(link.joinURL()), link);
    EXPECT_EQ(GuestLink::fromAppURL(link.appURL()), link);
    EXPECT_EQ(GuestLink::fromAppURL(link.universalURL()), link);
}

TEST(GuestLink, AppURLNeedsAHostAndFallsBackToTheDefaultPort) {
    EXPECT_EQ(GuestLink::fromAppURL("vellatone://guest?host=10.0.0.2"),
              (GuestLink{"10.0.0.2", 7766}));
    EXPECT_EQ(GuestLink::fromAppURL("vellatone://guest?host=10.0.0.2&port=banana"),
              (GuestLink{"10.0.0.2", 7766}));
    EXPECT_FALSE(GuestLink::fromAppURL("vellatone://guest?port=7766"));
    EXPECT_FALSE(GuestLink::fromAppURL("vellatone://other?host=10.0.0.2"));
    // The universal form is only ours on our host and its one path.
    EXPECT_FALSE(GuestLink::fromAppURL("https://example.com/guest?host=10.0.0.2"));
    EXPECT_FALSE(GuestLink::fromAppURL(std::string("https://") + GuestLink::universalHost +
                                       "/elsewhere?host=10.0.0.2"));
}

TEST(GuestLink, JoinURLIsStrictAboutSchemePathAndHost) {
    EXPECT_EQ(GuestLink::fromJoinURL("http://my-box.local/join"), (GuestLink{"my-box.local", 80}));
    EXPECT_FALSE(GuestLink::fromJoinURL("https://10.0.0.2:7766/join"));
    EXPECT_FALSE(GuestLink::fromJoinURL("http://10.0.0.2:7766/"));
    EXPECT_FALSE(GuestLink::fromJoinURL("http://:7766/join"));
    EXPECT_FALSE(GuestLink::fromJoinURL("http://evil_host:7766/join"));
    EXPECT_FALSE(GuestLink::fromJoinURL("http://10.0.0.2:99999/join"));
}

TEST(GuestLink, ClientIDsAreEightToSixtyFourLettersDigitsAndHyphens) {
    EXPECT_FALSE(GuestLink::isValidClientID("abcdefg"));
    EXPECT_TRUE(GuestLink::isValidClientID("abcdefgh"));
    EXPECT_TRUE(GuestLink::isValidClientID(std::string(64, 'a')));
    EXPECT_FALSE(GuestLink::isValidClientID(std::string(65, 'a')));
    EXPECT_FALSE(GuestLink::isValidClientID("abcd_efgh"));
    EXPECT_FALSE(GuestLink::isValidClientID("abcd/efgh"));
    EXPECT_FALSE(
        GuestLink::isValidClientID("abcd\xc3\xa9"
                                   "efgh"));
}

}  // namespace
}  // namespace vt::guests
