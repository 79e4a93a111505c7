#include "guests/guest_speaker.h"

#include <gtest/gtest.h>

namespace vt::guests {
namespace {

using Phase = GuestSpeakerState::Phase;
using remote::RowInfo;

TEST(GuestSpeakerState, JoinStreamPauseAndLeave) {
    GuestSpeakerState s;
    EXPECT_FALSE(s.streamStarted(48000, 2, 16));
    EXPECT_TRUE(s.join());
    EXPECT_FALSE(s.join());
    s.idle();
    EXPECT_EQ(s.phase(), Phase::paused);
    EXPECT_TRUE(s.streamStarted(48000, 2, 16));
    EXPECT_EQ(s.phase(), Phase::playing);
    s.streamEnded();
    EXPECT_EQ(s.phase(), Phase::paused);
    EXPECT_FALSE(s.streamStarted(44100, 2, 16));
    EXPECT_EQ(s.phase(), Phase::unsupported);
    EXPECT_FALSE(s.isIn());
    s.leave();
    EXPECT_EQ(s.phase(), Phase::join);
}

TEST(GuestSpeakerState, RetriesForFifteenSecondsFromTheFirstLoss) {
    GuestSpeakerState s;
    s.join();
    s.streamStarted(48000, 2, 16);
    EXPECT_TRUE(s.lost(1006, std::nullopt, 100.0));
    EXPECT_EQ(s.phase(), Phase::reconnecting);
    EXPECT_TRUE(s.lost(std::nullopt, "member", 114.9));
    EXPECT_EQ(s.lostSince(), 100.0);
    EXPECT_FALSE(s.lost(std::nullopt, std::nullopt, 115.0));
    EXPECT_EQ(s.phase(), Phase::join);
}

TEST(GuestSpeakerState, AHelloClearsTheLossClock) {
    GuestSpeakerState s;
    s.join();
    s.lost(1006, std::nullopt, 100.0);
    s.hello();
    EXPECT_EQ(s.phase(), Phase::joining);
    EXPECT_FALSE(s.lostSince());
    EXPECT_TRUE(s.lost(1006, std::nullopt, 200.0));
    EXPECT_EQ(s.lostSince(), 200.0);
}

TEST(GuestSpeakerState, FullAndRemovedEndWithoutRetry) {
    GuestSpeakerState full;
    full.join();
    EXPECT_FALSE(full.lost(1006, "full", 1.0));
    EXPECT_EQ(full.phase(), Phase::full);
    GuestSpeakerState removed;
    removed.join();
    EXPECT_FALSE(removed.lost(4001, std::nullopt, 1.0));
    EXPECT_EQ(removed.phase(), Phase::removed);
    EXPECT_EQ(HostSpeaker::endedReason(Phase::full), "The computer has 12 phones playing already.");
    EXPECT_FALSE(HostSpeaker::endedReason(Phase::playing));
}

TEST(HostSpeaker, LinkNameAndEnds) {
    EXPECT_EQ(HostSpeaker::link("http://10.0.0.2:7766/join", false, false, false),
              (GuestLink{"10.0.0.2", 7766}));
    EXPECT_FALSE(HostSpeaker::link("http://10.0.0.2:7766/join", true, false, false));
    EXPECT_FALSE(HostSpeaker::link("http://10.0.0.2:7766/join", false, false, true));
    EXPECT_EQ(HostSpeaker::name("  Ann's phone \n", "iPhone"), "Ann's phone");
    EXPECT_EQ(HostSpeaker::name(" ", "iPhone"), "This iPhone");
    EXPECT_EQ(HostSpeaker::name("iPhone", "iPhone"), "This iPhone");
    EXPECT_FALSE(HostSpeaker::endsWith(HostSpeaker::RemoteEnd::lost, true));
    EXPECT_TRUE(HostSpeaker::endsWith(HostSpeaker::RemoteEnd::left, true));
}

RowInfo guestRow(std::string name, int slot, bool notTimed = true) {
    RowInfo r;
    r.name = std::move(name);
    r.slot = slot;
    r.kind = RowInfo::Kind::guest;
    r.audible = true;
    r.notTimed = notTimed;
    r.guestID = "id-" + r.name;
    return r;
}

TEST(GuestTiming, OffersUntimedGuestsUntilDismissedAndAgainWhenTheyComeBackNew) {
    std::vector<RowInfo> rows{guestRow("Guest · Ann", 8), guestRow("Guest · Bob", 9, false)};
    RowInfo speaker;
    speaker.name = "Living";
    speaker.notTimed = true;
    speaker.audible = true;
    rows.push_back(speaker);
    EXPECT_EQ(GuestTiming::offered(rows, {}).size(), 1u);
    auto dismissed = GuestTiming::dismissing(rows, {});
    EXPECT_TRUE(GuestTiming::offered(rows, dismissed).empty());
    EXPECT_TRUE(GuestTiming::pruned(dismissed, {speaker}).empty());
    EXPECT_EQ(HostSpeaker::row(rows, "id-Guest · Bob")->slot, 9);
}

TEST(GuestTiming, BannerAndPasses) {
    EXPECT_EQ(GuestTiming::banner(0, true), "Time this iPhone?");
    EXPECT_EQ(GuestTiming::banner(1, false), "1 new guest. Time it?");
    EXPECT_EQ(GuestTiming::banner(3, true), "This iPhone and 3 new guests. Time them?");
    using P = GuestTiming::SyncPass;
    EXPECT_EQ(GuestTiming::passes({0, 8, 9}, 0, false), (std::vector<P>{{0, MeasureRole::reference},
                                                                        {8, MeasureRole::target},
                                                                        {9, MeasureRole::target}}));
    EXPECT_EQ(GuestTiming::passes({8}, std::nullopt, false),
              (std::vector<P>{{8, MeasureRole::target}}));
    EXPECT_FALSE(GuestTiming::movesOn(MeasureRole::reference, true));
}

}  // namespace
}  // namespace vt::guests
