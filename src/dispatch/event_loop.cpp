#include "dispatch/event_loop.h"

#include <chrono>
#include <cmath>

#include "dispatch/clock.h"

namespace vt::dispatch {

namespace {

std::chrono::steady_clock::time_point steadyAt(double monotonicSec) {
    // steady_clock is CLOCK_MONOTONIC on Linux; convert relative to now so
    // that the two epochs never need to agree.
    double delta = monotonicSec - monotonicSeconds();
    if (delta < 0) delta = 0;
    if (delta > 3600) delta = 3600;
    return std::chrono::steady_clock::now() +
           std::chrono::duration_cast<std::chrono::steady_clock::duration>(
               std::chrono::duration<double>(delta));
}

}  // namespace

EventLoop::EventLoop() : owner_(std::this_thread::get_id()) {}

void EventLoop::post(Task task) {
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    wake_.notify_one();
}

std::unique_ptr<TimerHandle> EventLoop::postAfter(double seconds, Task task) {
    if (!(seconds > 0)) seconds = 0;
    std::unique_ptr<TimerHandle> handle;
    {
        std::lock_guard lock(mutex_);
        handle = timers_.schedule(now() + seconds, 0, std::move(task));
    }
    wake_.notify_one();
    return handle;
}

std::unique_ptr<TimerHandle> EventLoop::repeat(double seconds, Task task) {
    // A zero interval would spin the loop; a millisecond is the floor.
    if (!(seconds >= 0.001)) seconds = 0.001;
    std::unique_ptr<TimerHandle> handle;
    {
        std::lock_guard lock(mutex_);
        handle = timers_.schedule(now() + seconds, seconds, std::move(task));
    }
    wake_.notify_one();
    return handle;
}

double EventLoop::now() const {
    return monotonicSeconds();
}

bool EventLoop::isMainThread() const {
    return owner_.load() == std::this_thread::get_id();
}

void EventLoop::quit() {
    {
        std::lock_guard lock(mutex_);
        quit_ = true;
    }
    wake_.notify_all();
}

void EventLoop::run() {
    loop(nullptr, INFINITY);
}

bool EventLoop::runUntil(const std::function<bool()>& done, double timeoutSeconds) {
    return loop(&done, now() + timeoutSeconds);
}

bool EventLoop::loop(const std::function<bool()>* done, double deadline) {
    owner_.store(std::this_thread::get_id());
    std::unique_lock lock(mutex_);
    quit_ = false;
    for (;;) {
        if (done && (*done)()) return true;
        if (quit_) return false;
        double t = now();
        if (t >= deadline) return false;

        if (!tasks_.empty()) {
            Task task = std::move(tasks_.front());
            tasks_.pop_front();
            lock.unlock();
            task();
            lock.lock();
            continue;
        }
        if (auto entry = timers_.popDue(t)) {
            if (entry->interval > 0) {
                // Keep the cadence, but never fire a burst to catch up after a stall.
                double next = entry->due + entry->interval;
                if (next <= t) next = t + entry->interval;
                timers_.reschedule(*entry, next);
            }
            lock.unlock();
            if (!entry->cancelled()) (*entry->task)();
            lock.lock();
            continue;
        }
        double until = deadline;
        if (auto due = timers_.nextDue()) until = std::min(until, *due);
        // A condition may be met by another thread without a post: look again soon.
        if (done) until = std::min(until, t + 0.01);
        if (std::isinf(until)) {
            wake_.wait(lock);
        } else {
            wake_.wait_until(lock, steadyAt(until));
        }
    }
}

}  // namespace vt::dispatch
