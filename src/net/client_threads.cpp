#include "net/client_threads.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

namespace vt::net {

void acceptUntil(int listener, const std::function<bool()>& keepGoing,
                 const std::function<void(int fd)>& take) {
    while (keepGoing()) {
        pollfd pfd{listener, POLLIN, 0};
        if (poll(&pfd, 1, 250) <= 0) continue;
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        const int yes = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        take(fd);
    }
    ::close(listener);
}

bool ClientThreads::spawn(const char* name, std::function<void()> serve) {
    {
        std::lock_guard guard(lock_);
        if (count_ >= cap_) return false;
        ++count_;
    }
    std::thread([this, name, serve = std::move(serve)] {
        pthread_setname_np(pthread_self(), name);
        serve();
        std::lock_guard guard(lock_);
        if (--count_ == 0) idle_.notify_all();
    }).detach();
    return true;
}

void ClientThreads::waitIdle() {
    std::unique_lock guard(lock_);
    idle_.wait(guard, [&] { return count_ == 0; });
}

size_t ClientThreads::count() const {
    std::lock_guard guard(lock_);
    return count_;
}

}  // namespace vt::net
