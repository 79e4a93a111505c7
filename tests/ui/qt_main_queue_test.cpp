// The Qt main queue: order of posted tasks from several threads, timers asked
// for from other threads running on the main thread, and cancellation.
#include "ui/queue/qt_main_queue.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <atomic>
#include <functional>
#include <map>
#include <thread>
#include <vector>

namespace {

using vt::ui::QtMainQueue;

// Runs the event loop until `done` or five seconds (a failure, not a wait).
bool spinUntil(const std::function<bool()>& done) {
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < 5000)
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 10);
    return done();
}

class QtMainQueueTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        static int argc = 1;
        static char name[] = "qt_main_queue_test";
        static char* argv[] = {name, nullptr};
        if (!QCoreApplication::instance()) app_ = new QCoreApplication(argc, argv);
    }
    static inline QCoreApplication* app_ = nullptr;
    QtMainQueue queue;
};

TEST_F(QtMainQueueTest, TasksFromEveryThreadRunOnTheMainThreadInTheirPostingOrder) {
    constexpr int threads = 4, perThread = 500;
    std::map<int, std::vector<int>> seen;
    std::atomic<int> offMain{0};
    std::vector<std::thread> posters;
    for (int t = 0; t < threads; ++t)
        posters.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i)
                queue.post([&, t, i] {
                    if (!queue.isMainThread()) ++offMain;
                    seen[t].push_back(i);
                });
        });
    std::vector<int> mainOrder;
    for (int i = 0; i < 100; ++i) queue.post([&, i] { mainOrder.push_back(i); });
    for (auto& p : posters) p.join();

    ASSERT_TRUE(spinUntil([&] {
        size_t n = 0;
        for (auto& [t, v] : seen) n += v.size();
        return n == threads * perThread && mainOrder.size() == 100;
    }));
    EXPECT_EQ(offMain, 0);
    for (auto& [t, v] : seen)
        for (int i = 0; i < perThread; ++i) ASSERT_EQ(v[i], i) << "thread " << t;
    for (int i = 0; i < 100; ++i) ASSERT_EQ(mainOrder[i], i);
    bool elsewhere = true;
    std::thread([&] { elsewhere = queue.isMainThread(); }).join();
    EXPECT_FALSE(elsewhere);
    EXPECT_TRUE(queue.isMainThread());
}

TEST_F(QtMainQueueTest, DelayedTaskAskedFromAnotherThreadRunsOnceOnTheMainThread) {
    std::unique_ptr<vt::dispatch::TimerHandle> handle;
    int runs = 0;
    bool onMain = false;
    double asked = queue.now(), ran = 0;
    std::thread([&] {
        handle = queue.postAfter(0.03, [&] {
            ++runs;
            onMain = queue.isMainThread();
            ran = queue.now();
        });
    }).join();
    ASSERT_TRUE(spinUntil([&] { return runs > 0; }));
    EXPECT_TRUE(onMain);
    EXPECT_GE(ran - asked, 0.025);
    // A one-shot stays spent.
    spinUntil([&] { return runs > 1 || queue.now() - ran > 0.1; });
    EXPECT_EQ(runs, 1);
}

TEST_F(QtMainQueueTest, CancelledTimersNeverRunWhereverTheyWereCancelled) {
    int dropped = 0, cancelledAcross = 0, ticks = 0, sentinel = 0;
    auto dropNow = queue.postAfter(0.01, [&] { ++dropped; });
    dropNow.reset();

    auto across = queue.postAfter(0.02, [&] { ++cancelledAcross; });
    std::thread([&] { across->cancel(); }).join();

    // A repeating timer that cancels itself from inside its own task.
    std::unique_ptr<vt::dispatch::TimerHandle> repeating;
    repeating = queue.repeat(0.005, [&] {
        if (++ticks == 3) repeating->cancel();
    });
    auto last = queue.postAfter(0.1, [&] { ++sentinel; });

    ASSERT_TRUE(spinUntil([&] { return sentinel == 1; }));
    EXPECT_EQ(dropped, 0);
    EXPECT_EQ(cancelledAcross, 0);
    EXPECT_EQ(ticks, 3);
}

TEST_F(QtMainQueueTest, NowIsTheMonotonicClock) {
    double a = queue.now();
    double b = queue.now();
    EXPECT_GT(a, 0);
    EXPECT_GE(b, a);
}

}  // namespace
