// The order notices are shown in and how they come and go.
#include <gtest/gtest.h>

#include "model/notice.h"

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

}  // namespace
}  // namespace vt::model
