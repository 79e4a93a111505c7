#include "dispatch/work_queues.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "dispatch/test_queues.h"

namespace vt::dispatch {
namespace {

TEST(SerialQueue, RunsTasksOneAtATimeInOrderOffTheCallersThread) {
    SerialQueue q("vellatone.test-serial");
    std::vector<int> order;  // unguarded on purpose: a serial queue needs no lock
    std::atomic<int> concurrent{0}, maxConcurrent{0};
    std::thread::id caller = std::this_thread::get_id();
    std::atomic<bool> onCaller{false};
    for (int i = 0; i < 200; ++i)
        q.async([&, i] {
            int c = ++concurrent;
            maxConcurrent = std::max(maxConcurrent.load(), c);
            if (std::this_thread::get_id() == caller) onCaller = true;
            order.push_back(i);
            --concurrent;
        });
    q.waitIdle();
    ASSERT_EQ(order.size(), 200u);
    for (int i = 0; i < 200; ++i) EXPECT_EQ(order[i], i);
    EXPECT_EQ(maxConcurrent.load(), 1);
    EXPECT_FALSE(onCaller);
}

TEST(ConcurrentQueue, SpreadsOverItsThreadsAndFinishesQueuedWorkOnDestruction) {
    std::atomic<int> done{0};
    std::mutex m;
    std::set<std::thread::id> threads;
    {
        ConcurrentQueue q("vellatone.test-pool", 2);
        std::atomic<int> arrived{0};
        // Two tasks that wait for each other can only finish on two threads.
        for (int i = 0; i < 2; ++i)
            q.async([&] {
                ++arrived;
                while (arrived.load() < 2) std::this_thread::yield();
                std::lock_guard lock(m);
                threads.insert(std::this_thread::get_id());
            });
        for (int i = 0; i < 50; ++i) q.async([&] { ++done; });
    }
    EXPECT_EQ(done.load(), 50);
    EXPECT_EQ(threads.size(), 2u);
}

TEST(TestQueues, ImmediateRunsInlineAndManualHoldsUntilReleased) {
    ImmediateWorkQueue now;
    int a = 0;
    now.async([&] { ++a; });
    EXPECT_EQ(a, 1);

    ManualWorkQueue manual;
    std::vector<int> order;
    manual.async([&] {
        order.push_back(1);
        manual.async([&] { order.push_back(3); });
    });
    manual.async([&] { order.push_back(2); });
    EXPECT_EQ(manual.pending(), 2u);
    EXPECT_TRUE(manual.runOne());
    EXPECT_EQ(order, (std::vector<int>{1}));
    EXPECT_EQ(manual.runAll(), 2u);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_FALSE(manual.runOne());
}

}  // namespace
}  // namespace vt::dispatch
