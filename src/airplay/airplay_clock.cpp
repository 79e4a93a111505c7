#include "airplay/airplay_clock.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace vt::airplay {

namespace {

constexpr const char* pgrep = "/usr/bin/pgrep";
constexpr size_t pgrepOutputLimit = 64 * 1024;

void pause() {
    std::this_thread::sleep_for(std::chrono::milliseconds(AirPlayClock::pollIntervalMs));
}

// A leftover that has ended but that init has not reaped yet still answers
// kill(pid, 0); it holds no ports any more.
bool stillRunning(pid_t pid) {
    if (::kill(pid, 0) != 0) return false;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat, text);
    const size_t name = text.rfind(')');
    return name == std::string::npos || name + 2 >= text.size() || text[name + 2] != 'Z';
}

// Starts `argv` with standard input from /dev/null and standard output and
// error to `outFd` (or /dev/null when it is -1), with no signal blocked: the
// daemon must end on SIGTERM whatever the thread that starts it blocks.
pid_t spawn(const std::vector<std::string>& argv, int outFd) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (outFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, outFd, STDERR_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGTERM);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    const int rc = ::posix_spawn(&pid, args[0], &actions, &attributes, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    return rc == 0 ? pid : -1;
}

// What pgrep prints: the ids of the processes whose command line matches.
std::vector<pid_t> matching(const std::string& pattern) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return {};
    const pid_t child = spawn({pgrep, "-f", pattern}, out[1]);
    ::close(out[1]);
    std::string text;
    if (child > 0) {
        char buffer[4096];
        ssize_t n;
        while (text.size() < pgrepOutputLimit && (n = ::read(out[0], buffer, sizeof buffer)) > 0)
            text.append(buffer, size_t(n));
        ::waitpid(child, nullptr, 0);
    }
    ::close(out[0]);
    std::vector<pid_t> pids;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        std::string_view line(text.data() + at, end - at);
        at = end + 1;
        while (!line.empty() && (line.front() == ' ' || line.front() == '\t'))
            line.remove_prefix(1);
        while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.remove_suffix(1);
        int32_t pid = 0;
        auto [stop, error] = std::from_chars(line.data(), line.data() + line.size(), pid);
        if (!line.empty() && error == std::errc() && stop == line.data() + line.size() && pid > 0)
            pids.push_back(pid);
    }
    return pids;
}

}  // namespace

AirPlayClock& AirPlayClock::shared() {
    static AirPlayClock clock;
    return clock;
}

AirPlayClock::~AirPlayClock() {
    stop();
}

bool AirPlayClock::aliveLocked() {
    std::erase_if(ending_, [](pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG) != 0; });
    if (process_ <= 0) return false;
    if (::waitpid(process_, nullptr, WNOHANG) == 0) return true;
    process_ = -1;
    return false;
}

bool AirPlayClock::isRunning() {
    std::lock_guard<std::mutex> hold(lock_);
    return aliveLocked();
}

std::optional<pid_t> AirPlayClock::pid() {
    std::lock_guard<std::mutex> hold(lock_);
    if (!aliveLocked()) return std::nullopt;
    return process_;
}

void AirPlayClock::reapOrphans(const std::filesystem::path& binary) {
    if (::access(pgrep, X_OK) != 0) return;
    std::vector<pid_t> orphans;
    for (pid_t pid : matching(binary.string() + " --ptp-daemon"))
        if (pid != ::getpid() && pid != process_) orphans.push_back(pid);
    for (pid_t pid : orphans) ::kill(pid, SIGTERM);
    for (int i = 0; i < orphanPolls; ++i) {
        bool anyLeft = false;
        for (pid_t pid : orphans) anyLeft = anyLeft || stillRunning(pid);
        if (!anyLeft) return;
        pause();
    }
}

bool AirPlayClock::ensureRunning(const std::filesystem::path& binary,
                                 const std::optional<std::string>& interface,
                                 const std::string& deviceID) {
    std::lock_guard<std::mutex> hold(lock_);
    if (aliveLocked()) return true;
    reapOrphans(binary);
    std::vector<std::string> argv = {binary.string(), "--ptp-daemon", "--dacp",
                                     deviceID,        "--debug",      "1"};
    if (interface && !interface->empty()) argv.insert(argv.end(), {"--if", *interface});
    const bool debugging = std::getenv("VELLATONE_AIRPLAY_DEBUG") != nullptr;
    process_ = spawn(argv, debugging ? STDERR_FILENO : -1);
    if (process_ <= 0) {
        process_ = -1;
        return false;
    }
    for (int i = 0; i < livenessPolls; ++i) {
        pause();
        if (!aliveLocked()) return false;
    }
    return true;
}

void AirPlayClock::stop() {
    std::lock_guard<std::mutex> hold(lock_);
    if (!aliveLocked()) return;
    const pid_t pid = process_;
    process_ = -1;
    ::kill(pid, SIGTERM);
    for (int i = 0; i < stopPolls; ++i) {
        if (::waitpid(pid, nullptr, WNOHANG) != 0) return;
        pause();
    }
    // Not waited for any longer: reaped later, so that it leaves no zombie.
    ending_.push_back(pid);
}

}  // namespace vt::airplay
