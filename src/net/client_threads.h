// The servers' way of serving sockets: an accept loop that hands each new
// connection on, and a count of the detached threads that serve them, with a
// cap so that a flood of sockets cannot become a flood of threads, and a wait
// for the last one to end before the server goes away.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <limits>
#include <mutex>

namespace vt::net {

// Accepts on `listener` until `keepGoing` answers false (asked at least every
// 250 ms), handing each new socket, close-on-exec and with Nagle off, to
// `take`, which owns it from then on. Closes the listener at the end.
void acceptUntil(int listener, const std::function<bool()>& keepGoing,
                 const std::function<void(int fd)>& take);

class ClientThreads {
  public:
    explicit ClientThreads(size_t cap = std::numeric_limits<size_t>::max()) : cap_(cap) {}
    ~ClientThreads() { waitIdle(); }
    ClientThreads(const ClientThreads&) = delete;
    ClientThreads& operator=(const ClientThreads&) = delete;

    // Runs `serve` on a detached thread called `name` (at most 15 characters);
    // false, and nothing runs, when `cap` threads are serving already.
    bool spawn(const char* name, std::function<void()> serve);
    // Returns once no thread is serving.
    void waitIdle();
    size_t count() const;

  private:
    const size_t cap_;
    mutable std::mutex lock_;
    size_t count_ = 0;
    std::condition_variable idle_;
};

}  // namespace vt::net
