#include "dispatch/virtual_main_queue.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace vt::dispatch {
namespace {

TEST(VirtualMainQueue, NothingRunsUntilDrainedAndPostsKeepTheirOrder) {
    VirtualMainQueue q;
    std::vector<int> order;
    q.post([&] { order.push_back(1); });
    q.post([&] {
        order.push_back(2);
        q.post([&] { order.push_back(4); });  // posted while draining: runs in the same drain
    });
    q.post([&] { order.push_back(3); });
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(q.drain(), 4u);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
}

TEST(VirtualMainQueue, AdvanceRunsTimersInTimeOrderWithTheClockAtTheirDueTime) {
    VirtualMainQueue q(100.0);
    std::vector<std::pair<std::string, double>> seen;
    auto a = q.postAfter(2.0, [&] { seen.emplace_back("a", q.now()); });
    auto b = q.postAfter(0.5, [&] {
        seen.emplace_back("b", q.now());
        q.post([&] { seen.emplace_back("b-post", q.now()); });
    });
    auto c = q.postAfter(0.5, [&] { seen.emplace_back("c", q.now()); });  // same time: after b
    q.advance(1.0);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0], std::make_pair(std::string("b"), 100.5));
    EXPECT_EQ(seen[1], std::make_pair(std::string("b-post"), 100.5));
    EXPECT_EQ(seen[2], std::make_pair(std::string("c"), 100.5));
    EXPECT_DOUBLE_EQ(q.now(), 101.0);
    q.advance(1.0);
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[3], std::make_pair(std::string("a"), 102.0));
}

TEST(VirtualMainQueue, RepeatFiresEveryIntervalUntilCancelledOrDropped) {
    VirtualMainQueue q(0.0);
    int ticks = 0;
    auto timer = q.repeat(0.1, [&] { ++ticks; });
    q.advance(1.0 + 1e-9);
    EXPECT_EQ(ticks, 10);
    timer->cancel();
    q.advance(1.0);
    EXPECT_EQ(ticks, 10);

    int other = 0;
    auto dropped = q.repeat(0.1, [&] { ++other; });
    q.advance(0.25);
    dropped.reset();  // dropping the handle cancels
    q.advance(1.0);
    EXPECT_EQ(other, 2);
    EXPECT_EQ(q.pendingTimers(), 0u);
}

TEST(VirtualMainQueue, ATimerCanCancelAnotherDueAtTheSameTime) {
    VirtualMainQueue q(0.0);
    bool secondRan = false;
    std::unique_ptr<TimerHandle> second;
    auto first = q.postAfter(1.0, [&] { second->cancel(); });
    second = q.postAfter(1.0, [&] { secondRan = true; });
    q.advance(2.0);
    EXPECT_FALSE(secondRan);
}

TEST(VirtualMainQueue, PicksUpTasksPostedFromOtherThreads) {
    VirtualMainQueue q;
    int ran = 0;
    bool wasMain = false;
    std::thread t([&] {
        EXPECT_FALSE(q.isMainThread());
        q.post([&] {
            ++ran;
            wasMain = q.isMainThread();
        });
    });
    t.join();
    EXPECT_EQ(q.pendingTasks(), 1u);
    q.drain();
    EXPECT_EQ(ran, 1);
    EXPECT_TRUE(wasMain);
}

TEST(VirtualMainQueue, AdvanceUntilStopsWhenTheConditionHolds) {
    VirtualMainQueue q(0.0);
    bool flag = false;
    auto t = q.postAfter(0.3, [&] { flag = true; });
    EXPECT_TRUE(q.advanceUntil([&] { return flag; }, 5.0, 0.01));
    EXPECT_NEAR(q.now(), 0.3, 0.011);
    EXPECT_FALSE(q.advanceUntil([] { return false; }, 0.05, 0.01));
}

}  // namespace
}  // namespace vt::dispatch
