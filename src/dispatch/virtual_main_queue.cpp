#include "dispatch/virtual_main_queue.h"

#include <cmath>

namespace vt::dispatch {

VirtualMainQueue::VirtualMainQueue(double startSeconds)
    : now_(startSeconds), owner_(std::this_thread::get_id()) {}

void VirtualMainQueue::post(Task task) {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
}

std::unique_ptr<TimerHandle> VirtualMainQueue::postAfter(double seconds, Task task) {
    if (!(seconds > 0)) seconds = 0;
    std::lock_guard lock(mutex_);
    return timers_.schedule(now() + seconds, 0, std::move(task));
}

std::unique_ptr<TimerHandle> VirtualMainQueue::repeat(double seconds, Task task) {
    if (!(seconds >= 1e-6)) seconds = 1e-6;
    std::lock_guard lock(mutex_);
    return timers_.schedule(now() + seconds, seconds, std::move(task));
}

double VirtualMainQueue::now() const {
    return now_.load();
}

bool VirtualMainQueue::isMainThread() const {
    return owner_.load() == std::this_thread::get_id();
}

size_t VirtualMainQueue::pendingTasks() const {
    std::lock_guard lock(mutex_);
    return tasks_.size();
}

size_t VirtualMainQueue::pendingTimers() const {
    std::lock_guard lock(mutex_);
    return timers_.live();
}

size_t VirtualMainQueue::runReady() {
    size_t ran = 0;
    std::unique_lock lock(mutex_);
    for (;;) {
        if (!tasks_.empty()) {
            Task task = std::move(tasks_.front());
            tasks_.pop_front();
            lock.unlock();
            task();
            ++ran;
            lock.lock();
            continue;
        }
        if (auto entry = timers_.popDue(now())) {
            if (entry->interval > 0) timers_.reschedule(*entry, entry->due + entry->interval);
            lock.unlock();
            if (!entry->cancelled()) {
                (*entry->task)();
                ++ran;
            }
            lock.lock();
            continue;
        }
        return ran;
    }
}

size_t VirtualMainQueue::drain() {
    owner_.store(std::this_thread::get_id());
    return runReady();
}

size_t VirtualMainQueue::advance(double seconds) {
    owner_.store(std::this_thread::get_id());
    const double target = now() + (seconds > 0 ? seconds : 0);
    size_t ran = runReady();
    for (;;) {
        std::optional<double> due;
        {
            std::lock_guard lock(mutex_);
            due = timers_.nextDue();
        }
        if (!due || *due > target) break;
        if (*due > now()) now_.store(*due);
        ran += runReady();
    }
    now_.store(target);
    return ran + runReady();
}

bool VirtualMainQueue::advanceUntil(const std::function<bool()>& done, double maxSeconds,
                                    double step) {
    owner_.store(std::this_thread::get_id());
    drain();
    if (!(step > 0)) step = 0.001;
    const auto steps = static_cast<long>(std::ceil(maxSeconds / step));
    for (long i = 0; !done(); ++i) {
        if (i >= steps) return false;
        advance(step);
    }
    return true;
}

}  // namespace vt::dispatch
