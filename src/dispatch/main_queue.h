// The main thread's queue: everything the model does runs here, one task at a
// time. A real event loop for the application, a virtual-time loop for tests
// (timers of seconds run in microseconds).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace vt::dispatch {

using Task = std::function<void()>;

// Cancels a repeating timer or a delayed task when destroyed or cancelled.
class TimerHandle {
  public:
    virtual ~TimerHandle() = default;
    virtual void cancel() = 0;
};

class MainQueue {
  public:
    virtual ~MainQueue() = default;
    // Any thread: run `task` on the main thread, in order of posting.
    virtual void post(Task task) = 0;
    // Any thread: run `task` on the main thread after `seconds`.
    virtual std::unique_ptr<TimerHandle> postAfter(double seconds, Task task) = 0;
    // Any thread: run `task` every `seconds`, first after one interval.
    virtual std::unique_ptr<TimerHandle> repeat(double seconds, Task task) = 0;
    // Seconds on this queue's clock (CLOCK_MONOTONIC, or virtual).
    virtual double now() const = 0;
    virtual bool isMainThread() const = 0;
};

// A worker queue with a label ("vellatone.<name>"): tasks run off the main
// thread, one at a time (serial) or on a small pool (concurrent).
class WorkQueue {
  public:
    virtual ~WorkQueue() = default;
    virtual void async(Task task) = 0;
};

}  // namespace vt::dispatch
