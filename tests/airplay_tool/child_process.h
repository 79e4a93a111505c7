// A child process for the integration tests, with standard input to write
// and both outputs gathered line by line.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace vt::airplay_tool::testing {

class ChildProcess {
  public:
    ChildProcess(const std::vector<std::string>& argv, bool pipeStdin) {
        int in[2] = {-1, -1}, out[2], err[2];
        if (pipeStdin && pipe2(in, O_CLOEXEC) != 0) return;
        if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            if (pipeStdin)
                dup2(in[0], 0);
            else {
                int null = open("/dev/null", O_RDONLY);
                dup2(null, 0);
            }
            dup2(out[1], 1);
            dup2(err[1], 2);
            std::vector<char*> args;
            for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
        if (pipeStdin) {
            close(in[0]);
            stdin_ = in[1];
        }
        close(out[1]);
        close(err[1]);
        readers_.emplace_back([this, fd = out[0]] { collect(fd, "out"); });
        readers_.emplace_back([this, fd = err[0]] { collect(fd, "err"); });
    }

    ~ChildProcess() {
        closeStdin();
        if (pid_ > 0 && !exitStatus_) {
            ::kill(pid_, SIGKILL);
            wait(std::chrono::seconds(5));
        }
        for (auto& t : readers_)
            if (t.joinable()) t.join();
    }

    pid_t pid() const { return pid_; }

    bool write(const void* data, size_t size) {
        const char* p = static_cast<const char*>(data);
        while (size > 0) {
            ssize_t n = ::write(stdin_, p, size);
            if (n <= 0) return false;
            p += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }

    void closeStdin() {
        if (stdin_ >= 0) close(stdin_);
        stdin_ = -1;
    }

    // The first line so far or within `timeout` that contains `text`.
    std::optional<std::string> waitForLine(const std::string& text,
                                           std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        std::optional<std::string> found;
        changed_.wait_for(lock, timeout, [&] {
            for (const auto& l : lines_)
                if (l.find(text) != std::string::npos) {
                    found = l;
                    return true;
                }
            return false;
        });
        return found;
    }

    std::vector<std::string> lines() {
        std::lock_guard lock(mutex_);
        return lines_;
    }

    std::string transcript() {
        std::string all;
        for (const auto& l : lines()) all += l + "\n";
        return all;
    }

    // The exit status, or nothing if it still runs after `timeout`.
    std::optional<int> wait(std::chrono::milliseconds timeout) {
        if (exitStatus_) return exitStatus_;
        const auto until = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < until) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                return exitStatus_;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return std::nullopt;
    }

    void kill(int signal) { ::kill(pid_, signal); }

  private:
    void collect(int fd, const char* stream) {
        std::string partial;
        char buf[4096];
        for (;;) {
            ssize_t n = read(fd, buf, sizeof buf);
            if (n <= 0) break;
            partial.append(buf, static_cast<size_t>(n));
            size_t nl;
            while ((nl = partial.find('\n')) != std::string::npos) {
                std::lock_guard lock(mutex_);
                lines_.push_back(std::string(stream) + ": " + partial.substr(0, nl));
                partial.erase(0, nl + 1);
                changed_.notify_all();
            }
        }
        close(fd);
    }

    pid_t pid_ = -1;
    int stdin_ = -1;
    std::optional<int> exitStatus_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
    std::vector<std::thread> readers_;
};

}  // namespace vt::airplay_tool::testing
