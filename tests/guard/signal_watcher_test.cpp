#include "guard/signal_watcher.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <stdexcept>
#include <thread>

#include "dispatch/event_loop.h"

namespace vt::guard {
namespace {

TEST(SignalWatcher, TurnsTermAndIntIntoCallsOnTheMainQueue) {
    dispatch::EventLoop loop;
    std::vector<int> seen;
    bool onMain = true;
    SignalWatcher watcher(loop, [&](int signal) {
        seen.push_back(signal);
        onMain = onMain && loop.isMainThread();
    });
    ::raise(SIGTERM);
    ::raise(SIGPIPE);  // ignored: a closed socket must not end the program
    ::kill(::getpid(), SIGINT);
    ASSERT_TRUE(loop.runUntil([&] { return seen.size() == 2; }, 5.0));
    EXPECT_EQ(seen, (std::vector<int>{SIGTERM, SIGINT}));
    EXPECT_TRUE(onMain);
}

TEST(SignalWatcher, PutsThePreviousHandlersBackAndAllowsOnlyOne) {
    dispatch::EventLoop loop;
    {
        SignalWatcher watcher(loop, [](int) {});
        EXPECT_THROW(SignalWatcher(loop, [](int) {}), std::logic_error);
    }
    struct sigaction now {};
    ::sigaction(SIGTERM, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
    ::sigaction(SIGPIPE, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
    SignalWatcher again(loop, [](int) {});
}

}  // namespace
}  // namespace vt::guard
