#include "dispatch/event_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace vt::dispatch {
namespace {

TEST(EventLoop, RunsPostsInOrderOnTheRunningThreadUntilQuit) {
    EventLoop loop;
    std::vector<int> order;
    std::atomic<bool> allMain{true};
    std::thread poster([&] {
        for (int i = 0; i < 100; ++i)
            loop.post([&, i] {
                order.push_back(i);
                if (!loop.isMainThread()) allMain = false;
            });
        loop.post([&] { loop.quit(); });
    });
    loop.run();
    poster.join();
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
    EXPECT_TRUE(allMain);
}

TEST(EventLoop, TimersFireInDueOrderOnTheMonotonicClock) {
    EventLoop loop;
    std::vector<int> order;
    const double start = loop.now();
    double firedAt = 0;
    auto late = loop.postAfter(0.03, [&] {
        order.push_back(2);
        firedAt = loop.now();
        loop.quit();
    });
    auto early = loop.postAfter(0.01, [&] { order.push_back(1); });
    auto cancelled = loop.postAfter(0.02, [&] { order.push_back(99); });
    cancelled->cancel();
    loop.run();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_GE(firedAt - start, 0.03);
}

TEST(EventLoop, RepeatKeepsFiringAndRunUntilReturnsWhenDone) {
    EventLoop loop;
    int ticks = 0;
    auto timer = loop.repeat(0.002, [&] { ++ticks; });
    EXPECT_TRUE(loop.runUntil([&] { return ticks >= 5; }, 5.0));
    timer.reset();
    const int seen = ticks;
    EXPECT_FALSE(loop.runUntil([] { return false; }, 0.02));
    EXPECT_EQ(ticks, seen);
}

}  // namespace
}  // namespace vt::dispatch
