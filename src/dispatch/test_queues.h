// Work queues for tests: one that runs each task at once on the caller's
// thread, and one that holds tasks until the test releases them, so a test
// can put a main-thread decision between an open's start and its completion.
#pragma once

#include <deque>
#include <mutex>

#include "dispatch/main_queue.h"

namespace vt::dispatch {

class ImmediateWorkQueue final : public WorkQueue {
  public:
    void async(Task task) override { task(); }
};

class ManualWorkQueue final : public WorkQueue {
  public:
    void async(Task task) override {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    size_t pending() const {
        std::lock_guard lock(mutex_);
        return tasks_.size();
    }
    // Runs the oldest task; false if there was none.
    bool runOne() {
        Task task;
        {
            std::lock_guard lock(mutex_);
            if (tasks_.empty()) return false;
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        task();
        return true;
    }
    // Runs tasks until none is left, including those queued meanwhile.
    size_t runAll() {
        size_t n = 0;
        while (runOne()) ++n;
        return n;
    }

  private:
    mutable std::mutex mutex_;
    std::deque<Task> tasks_;
};

}  // namespace vt::dispatch
