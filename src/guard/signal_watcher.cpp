#include "guard/signal_watcher.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace vt::guard {

namespace {

// The write end of the pipe, for the handler; -1 while no watcher exists.
std::atomic<int> gWriteFd{-1};

extern "C" void noteSignal(int signal) {
    const int savedErrno = errno;
    const int fd = gWriteFd.load();
    if (fd >= 0) {
        const unsigned char byte = static_cast<unsigned char>(signal);
        // Non-blocking: with the pipe full, the signal is already on its way.
        [[maybe_unused]] ssize_t n = ::write(fd, &byte, 1);
    }
    errno = savedErrno;
}

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

struct SignalWatcher::Saved {
    struct sigaction intAction {};
    struct sigaction termAction {};
    struct sigaction pipeAction {};
};

SignalWatcher::SignalWatcher(dispatch::MainQueue& queue, std::function<void(int)> onSignal)
    : queue_(queue), onSignal_(std::move(onSignal)), saved_(std::make_unique<Saved>()) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) fail("pipe2");
    readFd_ = fds[0];
    writeFd_ = fds[1];
    ::fcntl(writeFd_, F_SETFL, ::fcntl(writeFd_, F_GETFL) | O_NONBLOCK);

    int expected = -1;
    if (!gWriteFd.compare_exchange_strong(expected, writeFd_)) {
        ::close(readFd_);
        ::close(writeFd_);
        throw std::logic_error("only one SignalWatcher may exist at a time");
    }

    struct sigaction action {};
    action.sa_handler = noteSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    if (::sigaction(SIGINT, &action, &saved_->intAction) != 0 ||
        ::sigaction(SIGTERM, &action, &saved_->termAction) != 0 ||
        ::sigaction(SIGPIPE, &ignore, &saved_->pipeAction) != 0) {
        const int err = errno;
        gWriteFd = -1;
        ::close(readFd_);
        ::close(writeFd_);
        errno = err;
        fail("sigaction");
    }
    thread_ = std::thread([this] { run(); });
}

SignalWatcher::~SignalWatcher() {
    ::sigaction(SIGINT, &saved_->intAction, nullptr);
    ::sigaction(SIGTERM, &saved_->termAction, nullptr);
    ::sigaction(SIGPIPE, &saved_->pipeAction, nullptr);
    gWriteFd = -1;
    // Zero is no signal: it tells the reader to finish.
    const unsigned char stop = 0;
    while (::write(writeFd_, &stop, 1) < 0 && errno == EINTR) {
    }
    if (thread_.joinable()) thread_.join();
    ::close(readFd_);
    ::close(writeFd_);
}

void SignalWatcher::run() {
    for (;;) {
        unsigned char byte = 0;
        ssize_t n = ::read(readFd_, &byte, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || byte == 0) return;
        // A copy, so that a call still queued when the watcher goes is safe.
        queue_.post([call = onSignal_, signal = int(byte)] {
            if (call) call(signal);
        });
    }
}

}  // namespace vt::guard
