#include "platform/realtime/realtime_scheduling.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vt::platform {
namespace {

struct Asked {
    std::vector<std::string> order;
};

RealtimeMethods methods(Asked& asked, bool kit, bool scheduler) {
    return {[&asked, kit](int priority, std::string& why) {
                asked.order.push_back("kit " + std::to_string(priority));
                if (!kit) why = "The name org.freedesktop.RealtimeKit1 was not provided";
                return kit;
            },
            [&asked, scheduler](int priority, std::string& why) {
                asked.order.push_back("sched " + std::to_string(priority));
                if (!scheduler) why = "Operation not permitted";
                return scheduler;
            }};
}

class RealtimeChoice : public ::testing::Test {
  protected:
    void SetUp() override { resetRealtimeLogOnce(); }
    void TearDown() override { resetRealtimeLogOnce(); }
    RealtimeGrant raise(bool kit, bool scheduler) {
        return raiseCurrentThread(methods(asked, kit, scheduler), 5,
                                  [this](const std::string& line) { lines.push_back(line); });
    }
    Asked asked;
    std::vector<std::string> lines;
};

TEST_F(RealtimeChoice, RealtimeKitFirstAndNothingElseOnceItGrants) {
    EXPECT_EQ(raise(true, true), RealtimeGrant::realtimeKit);
    EXPECT_EQ(asked.order, (std::vector<std::string>{"kit 5"}));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "real-time scheduling for the audio thread: RealtimeKit");
}

TEST_F(RealtimeChoice, TheSchedulerWhenRealtimeKitRefusesThenNoneSayingWhy) {
    EXPECT_EQ(raise(false, true), RealtimeGrant::scheduler);
    EXPECT_EQ(asked.order, (std::vector<std::string>{"kit 5", "sched 5"}));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0],
              "real-time scheduling for the audio thread: sched_setscheduler (RealtimeKit: The "
              "name org.freedesktop.RealtimeKit1 was not provided)");

    resetRealtimeLogOnce();
    lines.clear();
    EXPECT_EQ(raise(false, false), RealtimeGrant::none);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0],
              "real-time scheduling for the audio thread: none (RealtimeKit: The name "
              "org.freedesktop.RealtimeKit1 was not provided) (sched_setscheduler: Operation not "
              "permitted)");
}

TEST_F(RealtimeChoice, SaysSoOncePerProcess) {
    raise(false, true);
    raise(true, true);
    raise(false, false);
    EXPECT_EQ(lines.size(), 1u);
    EXPECT_EQ(asked.order.size(), 5u) << "every thread still asks";
}

TEST_F(RealtimeChoice, MissingMethodsGiveNone) {
    EXPECT_EQ(raiseCurrentThread({}, 5, nullptr), RealtimeGrant::none);
}

}  // namespace
}  // namespace vt::platform
