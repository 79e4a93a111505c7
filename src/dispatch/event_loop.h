// The application's main queue: a loop on the thread that calls run(), with
// posted tasks in order and timers on CLOCK_MONOTONIC.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "dispatch/main_queue.h"
#include "dispatch/timer_heap.h"

namespace vt::dispatch {

class EventLoop final : public MainQueue {
  public:
    EventLoop();
    ~EventLoop() override = default;

    // Runs tasks and timers on the calling thread until quit().
    void run();
    // Like run(), but returns once `done` holds (checked after every task)
    // or `timeoutSeconds` have passed; true if `done` held.
    bool runUntil(const std::function<bool()>& done, double timeoutSeconds);
    // Any thread: makes run() return after the task in hand.
    void quit();

    void post(Task task) override;
    std::unique_ptr<TimerHandle> postAfter(double seconds, Task task) override;
    std::unique_ptr<TimerHandle> repeat(double seconds, Task task) override;
    double now() const override;
    bool isMainThread() const override;

  private:
    bool loop(const std::function<bool()>* done, double deadline);

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Task> tasks_;
    TimerHeap timers_;
    bool quit_ = false;
    std::atomic<std::thread::id> owner_;
};

}  // namespace vt::dispatch
