// The order notices are shown in, how they come and go, and the ones an
// AirPlay receiver raises.
#include <gtest/gtest.h>

#include "discovery/local_interfaces.h"
#include "model/notice.h"
#include "model/notice_words.h"

namespace vt::model {
namespace {

Notice notice(const std::string& id, Notice::Tone tone) {
    Notice n;
    n.id = id;
    n.tone = tone;
    return n;
}

std::vector<std::string> ids(const std::vector<Notice>& ns) {
    std::vector<std::string> out;
    for (const Notice& n : ns) out.push_back(n.id);
    return out;
}

TEST(NoticeBoard, FaultsFirstThenNewestFirstThenTheOrderOfTheChecks) {
    NoticeBoard board;
    const Notice warnA = notice("a", Notice::Tone::warn);
    const Notice warnB = notice("b", Notice::Tone::warn);
    const Notice good = notice("g", Notice::Tone::good);
    const Notice fault = notice("f", Notice::Tone::fault);

    EXPECT_EQ(ids(board.update({warnA, good}, 1.0)), (std::vector<std::string>{"a", "g"}));
    EXPECT_EQ(ids(board.update({warnA, warnB, good}, 2.0)),
              (std::vector<std::string>{"b", "a", "g"}));
    EXPECT_EQ(ids(board.update({warnA, warnB, good, fault}, 3.0)),
              (std::vector<std::string>{"f", "b", "a", "g"}));
    // Same tone, same birth: the order of the checks.
    NoticeBoard fresh;
    EXPECT_EQ(ids(fresh.update({warnB, warnA}, 1.0)), (std::vector<std::string>{"b", "a"}));
}

TEST(NoticeBoard, ADismissedNoticeStaysAwayUntilItGoesAndReturnsAsNew) {
    NoticeBoard board;
    const Notice crash = notice("crash", Notice::Tone::good);
    ASSERT_EQ(board.update({crash}, 1.0).size(), 1u);
    board.dismiss("crash");
    EXPECT_TRUE(board.update({crash}, 2.0).empty());
    EXPECT_TRUE(board.update({}, 3.0).empty());
    std::vector<Notice> back = board.update({crash}, 4.0);
    ASSERT_EQ(back.size(), 1u);
    EXPECT_DOUBLE_EQ(back[0].since, 4.0);
}

TEST(RowNotices, AnAirPlayReceiverThatWillNotPlaySaysWhyAndOnlyThen) {
    using Kind = airplay::AirPlayStatus::Kind;
    RowState row;
    row.airplayID = row.airplayName = "Kitchen";
    auto id = [&](Kind kind, RowNoticeFacts facts = {}) {
        row.airplayStatus = airplay::AirPlayStatus{kind, {}};
        auto n = rowNotice(row, facts);
        return n ? n->id + ": " + n->title : std::string();
    };
    EXPECT_EQ(id(Kind::forbidden), "forbidden: Kitchen only allows its own user");
    EXPECT_EQ(id(Kind::clockStalled, {.leadsOwnGroup = true, .appleModel = true}),
              "grouped: Kitchen won’t follow this computer’s clock");
    EXPECT_EQ(id(Kind::clockStalled, {.appleModel = true}),
              "approval: Kitchen won’t sync the stream");
    // Waiting for a person's accept is a notice only once it was given up.
    EXPECT_EQ(id(Kind::needsApproval), "");
    EXPECT_EQ(id(Kind::needsApproval, {.exhausted = true}),
              "approval: Kitchen hasn’t allowed this computer");
    for (Kind quiet : {Kind::streaming, Kind::connecting, Kind::failed, Kind::passwordRequired,
                       Kind::clockStalled})
        EXPECT_EQ(id(quiet), "") << int(quiet);
}

TEST(RowNotices, TwoInterfacesOnOneSubnetAreNamedOnce) {
    using discovery::LocalInterface;
    const uint32_t lan = 0xC0A80100, mask24 = 0xFFFFFF00;  // 192.168.1.0/24
    const std::vector<LocalInterface> all = {{"eth0", lan | 5, mask24},
                                             {"eth0", lan | 6, mask24},
                                             {"wg0", 0x0A000001, 0xFFFFFFFF},
                                             {"wlan0", lan | 7, mask24},
                                             {"eth1", 0x0A000002, 0xFF000000}};
    const auto shared = discovery::interfacesSharingASubnet(all);
    EXPECT_EQ(shared, (std::vector<std::string>{"eth0", "wlan0"}));
    EXPECT_TRUE(discovery::interfacesSharingASubnet({all[0], all[1], all[2]}).empty());
    EXPECT_EQ(multihomedNotice(shared)->why,
              "Turn one of them off, or give them different subnets. Wired speakers aren’t "
              "affected. On this computer: eth0 and wlan0");
}

}  // namespace
}  // namespace vt::model
