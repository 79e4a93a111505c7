// The TXT rules that decide how a receiver is treated, at their edges: the
// versions from which a receiver follows our clock (strictly above), what
// makes a HomePod follow, which groups an Apple receiver leads, and when
// pairing asks for a code.
#include "airplay/receiver_traits.h"

#include <gtest/gtest.h>

namespace vt::airplay {
namespace {

discovery::AirPlayReceiver withTxt(std::map<std::string, std::string> txt) {
    discovery::AirPlayReceiver r;
    r.id = r.name = "R";
    r.supportsAirPlay2 = true;
    r.txt = std::move(txt);
    return r;
}

TEST(ReceiverTraits, FollowingOurClockNeedsARecentReleaseAndTheRightModel) {
    EXPECT_FALSE(followsReceiverClock(withTxt({{"model", "Mac14,2"}, {"osvers", "26.4"}})));
    EXPECT_TRUE(followsReceiverClock(withTxt({{"model", "Mac14,2"}, {"osvers", "27.0"}})));
    EXPECT_FALSE(followsReceiverClock(withTxt({{"model", "iMac21,1"}, {"srcvers", "979.1"}})));
    EXPECT_TRUE(followsReceiverClock(withTxt({{"am", "iMac21,1"}, {"srcvers", "980"}})));
    EXPECT_FALSE(followsReceiverClock(withTxt({{"model", "Mac14,2"}, {"osvers", "x27"}})));
    EXPECT_FALSE(followsReceiverClock(withTxt({{"model", "AppleTV14,1"}, {"osvers", "27"}})));
    // A HomePod follows only when it leads no group and is in no stereo pair.
    const std::map<std::string, std::string> homePod = {
        {"model", "AudioAccessory5,1"}, {"srcvers", "990.7"}, {"igl", "1"}};
    EXPECT_TRUE(followsReceiverClock(withTxt(homePod)));
    for (const char* grouped : {"pgid", "tsid"}) {
        auto txt = homePod;
        txt[grouped] = "x";
        EXPECT_FALSE(followsReceiverClock(withTxt(txt))) << grouped;
    }
    auto notLeader = homePod;
    notLeader["igl"] = "0";
    EXPECT_FALSE(followsReceiverClock(withTxt(notLeader)));
}

TEST(ReceiverTraits, OnlyAnAppleReceiverLeadsItsOwnGroup) {
    EXPECT_TRUE(leadsOwnGroup(withTxt({{"model", "AudioAccessory5,1"}, {"gcgl", "1"}})));
    EXPECT_TRUE(leadsOwnGroup(withTxt({{"model", "AppleTV6,2"}, {"gid", "A+B"}})));
    EXPECT_FALSE(leadsOwnGroup(withTxt({{"model", "AppleTV6,2"}, {"gid", "AB"}})));
    EXPECT_FALSE(leadsOwnGroup(withTxt({{"model", "Speaker1,1"}, {"igl", "1"}})));
}

TEST(ReceiverTraits, ACodeIsWantedForAPasswordFlagOrAnAppleTV) {
    EXPECT_TRUE(wantsPIN(withTxt({{"pw", "true"}})));
    EXPECT_TRUE(wantsPIN(withTxt({{"flags", "0x8"}})));
    EXPECT_TRUE(wantsPIN(withTxt({{"flags", "200"}})));
    EXPECT_FALSE(wantsPIN(withTxt({{"flags", "0x4"}, {"pw", "false"}})));
    EXPECT_FALSE(wantsPIN(withTxt({{"flags", "0xzz"}})));
    EXPECT_TRUE(wantsPIN(withTxt({{"model", "AppleTV11,1"}})));
}

}  // namespace
}  // namespace vt::airplay
