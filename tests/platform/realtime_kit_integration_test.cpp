// The RealtimeKit path against Debian's real rtkit-daemon, on a private system
// bus of our own with polkitd beside it (RealtimeKit asks it whether to
// grant), and the fallback when the bus has no RealtimeKit.
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/realtime/realtime_scheduling.h"

extern char** environ;

namespace vt::platform {
namespace {

constexpr const char* kRtkitDaemon = "/usr/libexec/rtkit-daemon";
constexpr const char* kPolkitDaemon = "/usr/lib/polkit-1/polkitd";

pid_t spawn(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, args[0], nullptr, nullptr, args.data(), environ) != 0) return -1;
    return pid;
}

void stop(pid_t& pid) {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    pid = -1;
}

bool nameOnBus(const char* name) {
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0) return false;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int has = 0;
    int rc = sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                "org.freedesktop.DBus", "NameHasOwner", &error, &reply, "s", name);
    if (rc >= 0) sd_bus_message_read(reply, "b", &has);
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    sd_bus_flush_close_unref(bus);
    return has != 0;
}

template <class F>
bool eventually(F done) {
    for (int i = 0; i < 100; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

// A private system bus, optionally with polkitd and rtkit-daemon on it.
class PrivateSystemBus {
  public:
    explicit PrivateSystemBus(bool withRealtimeKit) {
        char tmpl[] = "/tmp/vt-sysbus-XXXXXX";
        dir_ = mkdtemp(tmpl);
        // polkitd gives up root for a user of its own, which must reach the
        // bus's socket.
        std::filesystem::permissions(
            dir_, std::filesystem::perms::owner_all | std::filesystem::perms::group_read |
                      std::filesystem::perms::group_exec | std::filesystem::perms::others_read |
                      std::filesystem::perms::others_exec);
        const std::string socket = dir_ + "/system_bus";
        std::ofstream(dir_ + "/bus.conf")
            << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\" "
               "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
               "<busconfig><type>system</type><listen>unix:path="
            << socket
            << "</listen><auth>EXTERNAL</auth>"
               "<policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/>"
               "<allow send_type=\"method_call\"/><allow send_destination=\"*\" "
               "eavesdrop=\"true\"/><allow eavesdrop=\"true\"/></policy>"
               "<includedir>/usr/share/dbus-1/system.d</includedir></busconfig>\n";
        previous_ = getenv("DBUS_SYSTEM_BUS_ADDRESS") ? getenv("DBUS_SYSTEM_BUS_ADDRESS") : "";
        setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + socket).c_str(), 1);
        bus_ = spawn({"/usr/bin/dbus-daemon", "--nofork", "--config-file=" + dir_ + "/bus.conf"});
        if (!eventually([] { return nameOnBus("org.freedesktop.DBus"); })) return;
        if (!withRealtimeKit) {
            ready_ = true;
            return;
        }
        polkit_ = spawn({kPolkitDaemon, "--no-debug"});
        // Kept from limiting its own resources: it would cap our output
        // files at nothing and die writing its log.
        rtkit_ = spawn({kRtkitDaemon, "--no-drop-privileges", "--no-chroot", "--no-canary",
                        "--no-limit-resources"});
        ready_ = eventually([] {
            return nameOnBus("org.freedesktop.PolicyKit1") &&
                   nameOnBus("org.freedesktop.RealtimeKit1");
        });
    }
    ~PrivateSystemBus() {
        stop(rtkit_);
        stop(polkit_);
        stop(bus_);
        if (previous_.empty())
            unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
        else
            setenv("DBUS_SYSTEM_BUS_ADDRESS", previous_.c_str(), 1);
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    bool ready() const { return ready_; }

  private:
    std::string dir_;
    std::string previous_;
    pid_t bus_ = -1, polkit_ = -1, rtkit_ = -1;
    bool ready_ = false;
};

struct Raised {
    RealtimeGrant grant = RealtimeGrant::none;
    int policy = -1;
    int priority = -1;
    std::string line;
};

// On a thread of its own, as the stream loop's thread would be.
Raised raiseAThread() {
    resetRealtimeLogOnce();
    Raised r;
    std::thread([&r] {
        r.grant = raiseCurrentThread(systemRealtimeMethods(), 5,
                                     [&r](const std::string& line) { r.line = line; });
        sched_param param{};
        r.policy = sched_getscheduler(0);
        sched_getparam(0, &param);
        r.priority = param.sched_priority;
    }).join();
    return r;
}

TEST(RealtimeKitIntegration, TheDaemonMakesTheThreadRealTime) {
    ASSERT_TRUE(std::filesystem::exists(kRtkitDaemon)) << "rtkit is not installed";
    ASSERT_TRUE(std::filesystem::exists(kPolkitDaemon)) << "polkitd is not installed";
    PrivateSystemBus bus(true);
    ASSERT_TRUE(bus.ready());
    Raised r = raiseAThread();
    EXPECT_EQ(r.grant, RealtimeGrant::realtimeKit) << r.line;
    // RealtimeKit hands out round-robin, never inherited by children.
    EXPECT_EQ(r.policy, SCHED_RR | SCHED_RESET_ON_FORK);
    EXPECT_EQ(r.priority, 5);
    EXPECT_EQ(r.line, "real-time scheduling for the audio thread: RealtimeKit");
}

TEST(RealtimeKitIntegration, WithoutTheDaemonTheSchedulerIsAskedDirectly) {
    PrivateSystemBus bus(false);
    ASSERT_TRUE(bus.ready());
    Raised r = raiseAThread();
    ASSERT_NE(r.grant, RealtimeGrant::realtimeKit);
    EXPECT_NE(r.line.find("RealtimeKit: "), std::string::npos) << r.line;
    if (geteuid() == 0) {
        EXPECT_EQ(r.grant, RealtimeGrant::scheduler) << r.line;
        EXPECT_EQ(r.policy, SCHED_FIFO | SCHED_RESET_ON_FORK);
    }
}

}  // namespace
}  // namespace vt::platform
