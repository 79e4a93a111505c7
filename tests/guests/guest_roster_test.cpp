#include "guests/guest_roster.h"

#include <gtest/gtest.h>

namespace vt::guests {
namespace {

using R = GuestRoster;

std::string id(int n) {
    return "guest-" + std::to_string(1000 + n);
}

// A roster of `n` named members on connections 1..n.
R fullOf(int n) {
    R roster;
    for (int i = 0; i < n; ++i) {
        roster.admit(id(i), i + 1);
        roster.named(id(i), "P" + std::to_string(i));
    }
    return roster;
}

TEST(GuestRoster, TwelveAtMostAndADroppedMemberStillCountsUntilItExpires) {
    R roster = fullOf(12);
    EXPECT_EQ(roster.status(id(99)), R::Status::full);
    EXPECT_EQ(roster.admit(id(99), 50), R::Admission(R::Full{}));
    EXPECT_EQ(roster.dropped(3, 100.0), R::Drop(R::Dropped{id(2)}));
    EXPECT_EQ(roster.admit(id(99), 51), R::Admission(R::Full{}));
    EXPECT_TRUE(roster.expired(114.9, 15.0).empty());
    EXPECT_EQ(roster.expired(115.0, 15.0), std::vector<std::string>{id(2)});
    EXPECT_EQ(roster.status(id(99)), R::Status::open);
    EXPECT_EQ(roster.admit(id(99), 52), R::Admission(R::New{}));
}

TEST(GuestRoster, AReturningMemberIsAdmittedAtTheCapAndKeepsItsPlace) {
    R roster = fullOf(12);
    EXPECT_EQ(roster.status(id(5)), R::Status::member);
    EXPECT_EQ(roster.admit(id(5), 77), R::Admission(R::Returning{6}));
    roster.dropped(77, 10.0);
    EXPECT_EQ(roster.admit(id(5), 78), R::Admission(R::Returning{std::nullopt}));
    const auto* g = roster.guest(id(5));
    ASSERT_TRUE(g);
    EXPECT_EQ(g->connection, 78);
    EXPECT_FALSE(g->droppedAt);
    EXPECT_EQ(g->name, "P5");
    EXPECT_EQ(roster.guests()[5].clientID, id(5));
    // The old socket ending later is no longer this guest's business.
    EXPECT_EQ(roster.dropped(77, 11.0), R::Drop(R::NoDrop{}));
}

TEST(GuestRoster, ANamelessGuestIsForgottenWhenItsSocketEnds) {
    R roster;
    roster.admit(id(1), 1);
    EXPECT_EQ(roster.dropped(1, 5.0), R::Drop(R::Forgotten{id(1)}));
    EXPECT_FALSE(roster.guest(id(1)));
    EXPECT_EQ(roster.named(id(2), "x"), R::Naming::unknown);
}

TEST(GuestRoster, RemovalBarsButLeavingDoesNot) {
    R roster = fullOf(2);
    EXPECT_EQ(roster.remove(id(0)), 1);
    EXPECT_EQ(roster.status(id(0)), R::Status::removed);
    EXPECT_EQ(roster.admit(id(0), 9), R::Admission(R::Removed{}));
    // Barring works for ids never seen too.
    EXPECT_EQ(roster.remove(id(7)), std::nullopt);
    EXPECT_EQ(roster.admit(id(7), 10), R::Admission(R::Removed{}));

    EXPECT_TRUE(roster.left(id(1)));
    EXPECT_FALSE(roster.left(id(1)));
    EXPECT_EQ(roster.admit(id(1), 11), R::Admission(R::New{}));
}

TEST(GuestRoster, NamedReportsOnlyTheFirstName) {
    R roster;
    roster.admit(id(1), 1);
    EXPECT_EQ(roster.named(id(1), "Ann"), R::Naming::first);
    EXPECT_EQ(roster.named(id(1), "Anna"), R::Naming::again);
    EXPECT_EQ(roster.guest(id(1))->name, "Anna");
}

// Twelve sockets that kept their clocks in step but never said hello once
// made the party full while the host showed nobody.
TEST(GuestRoster, OnlyAHelloTakesAPlace) {
    R roster = fullOf(10);
    for (int i = 20; i < 40; ++i) EXPECT_EQ(roster.admit(id(i), 100 + i), R::Admission(R::New{}));
    EXPECT_EQ(roster.seated(), 10u);
    EXPECT_EQ(roster.status(id(20)), R::Status::open);  // talking, but not a member
    EXPECT_EQ(roster.status(id(99)), R::Status::open);
    EXPECT_EQ(roster.named(id(20), "Kim"), R::Naming::first);
    EXPECT_EQ(roster.named(id(21), "Lee"), R::Naming::first);
    EXPECT_EQ(roster.status(id(99)), R::Status::full);
    // The places went to those who said hello first; a later hello is told so.
    EXPECT_EQ(roster.named(id(22), "Max"), R::Naming::full);
    EXPECT_FALSE(roster.guest(id(22)));
    EXPECT_EQ(roster.admit(id(99), 200), R::Admission(R::Full{}));
    EXPECT_TRUE(roster.party(id(23), 0, 15).size() == 12);
}

TEST(GuestRoster, PartyShowsNamedMembersWithinPatienceAndMarksTheAsker) {
    R roster = fullOf(3);
    roster.admit(id(3), 4);  // no hello yet: not shown
    roster.named(id(2), "  \n");
    roster.dropped(2, 100.0);
    auto party = roster.party(id(0), 110.0, 15.0);
    ASSERT_EQ(party.size(), 3u);
    EXPECT_EQ(party[0], (R::Member{"P0", true}));
    EXPECT_EQ(party[1], (R::Member{"P1", false}));
    EXPECT_EQ(party[2], (R::Member{"Guest", false}));
    EXPECT_EQ(roster.party(id(0), 115.0, 15.0).size(), 2u);
    roster.remove(id(1));
    EXPECT_TRUE(roster.party(id(1), 110.0, 15.0).empty());
}

TEST(GuestDisplayName, TrimsAndCutsByCharacters) {
    EXPECT_EQ(guestDisplayName("  Ann \n"), "Ann");
    EXPECT_EQ(guestDisplayName(""), "Guest");
    EXPECT_EQ(guestDisplayName(std::string(50, 'x')), std::string(40, 'x'));
    std::string accents;
    for (int i = 0; i < 45; ++i) accents += "\xc3\xa9";
    EXPECT_EQ(guestDisplayName(accents).size(), 80u);
}

}  // namespace
}  // namespace vt::guests
