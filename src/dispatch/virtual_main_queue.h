// A main queue on virtual time for tests: nothing runs until the test calls
// drain() or advance(), so timers of seconds run in microseconds and every
// run is deterministic. Tasks may be posted from any thread.
#pragma once

#include <atomic>
#include <deque>
#include <mutex>
#include <thread>

#include "dispatch/main_queue.h"
#include "dispatch/timer_heap.h"

namespace vt::dispatch {

class VirtualMainQueue final : public MainQueue {
  public:
    explicit VirtualMainQueue(double startSeconds = 1000.0);

    // Runs every posted task and every timer due at the present virtual time,
    // including those they post in turn; returns how many ran.
    size_t drain();
    // Moves virtual time forward by `seconds`, running every task and timer
    // in time order; the clock reads each timer's due time while it runs.
    size_t advance(double seconds);
    // Advances in `step`s until `done` holds or `maxSeconds` have passed.
    bool advanceUntil(const std::function<bool()>& done, double maxSeconds, double step = 0.001);
    size_t pendingTasks() const;
    size_t pendingTimers() const;

    void post(Task task) override;
    std::unique_ptr<TimerHandle> postAfter(double seconds, Task task) override;
    std::unique_ptr<TimerHandle> repeat(double seconds, Task task) override;
    double now() const override;
    bool isMainThread() const override;

  private:
    size_t runReady();

    mutable std::mutex mutex_;
    std::deque<Task> tasks_;
    TimerHeap timers_;
    std::atomic<double> now_;
    std::atomic<std::thread::id> owner_;
};

}  // namespace vt::dispatch
