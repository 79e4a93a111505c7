// The shared PTP daemon's process, with the fake tool in its place: one
// daemon however often it is asked for, a daemon left behind by a crash
// ended first, a daemon that cannot take its ports reported as not running.
#include "airplay/airplay_clock.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

namespace vt::airplay {
namespace {

const std::filesystem::path tool = VELLATONE_FAKE_AIRPLAY_TOOL;

// Ended: no such process, or one that its parent (init, for the leftover)
// has not reaped yet.
bool ended(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat, text);
    const size_t name = text.rfind(')');
    return ::kill(pid, 0) != 0 ||
           (name != std::string::npos && name + 2 < text.size() && text[name + 2] == 'Z');
}

bool gone(pid_t pid) {
    for (int i = 0; i < 100 && !ended(pid); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return ended(pid);
}

// A daemon as a crashed run leaves it: not our child, still holding the ports.
pid_t orphanDaemon() {
    const std::string command =
        "sh -c '\"$0\" --ptp-daemon --dacp old >/dev/null 2>&1 & echo $!' " + tool.string();
    FILE* out = ::popen(command.c_str(), "r");
    int pid = -1;
    if (out) {
        if (std::fscanf(out, "%d", &pid) != 1) pid = -1;
        ::pclose(out);
    }
    return pid;
}

TEST(AirPlayClock, OneDaemonAfterEndingALeftoverAndNoneWithoutItsPorts) {
    unsetenv("FAKE_PTP_EXIT");
    const pid_t orphan = orphanDaemon();
    ASSERT_GT(orphan, 0);
    AirPlayClock clock;
    ASSERT_TRUE(clock.ensureRunning(tool, "10.0.0.1", "02:00:00:00:00:01"));
    EXPECT_TRUE(gone(orphan));
    const auto daemon = clock.pid();
    ASSERT_TRUE(daemon);
    EXPECT_TRUE(clock.ensureRunning(tool, std::nullopt, "02:00:00:00:00:01"));
    EXPECT_EQ(clock.pid(), daemon);
    clock.stop();
    EXPECT_FALSE(clock.isRunning());
    EXPECT_TRUE(gone(*daemon));

    setenv("FAKE_PTP_EXIT", "2", 1);
    EXPECT_FALSE(clock.ensureRunning(tool, std::nullopt, "02:00:00:00:00:01"));
    EXPECT_FALSE(clock.isRunning());
    unsetenv("FAKE_PTP_EXIT");
}

}  // namespace
}  // namespace vt::airplay
