#include "dispatch/work_queues.h"

#include <pthread.h>

namespace vt::dispatch {

ThreadQueue::ThreadQueue(std::string label, unsigned threads) : label_(std::move(label)) {
    for (unsigned i = 0; i < threads; ++i) {
        threads_.emplace_back([this] { work(); });
        // Thread names are limited to 15 characters; keep the distinctive end.
        std::string name = label_.size() > 15 ? label_.substr(label_.size() - 15) : label_;
        pthread_setname_np(threads_.back().native_handle(), name.c_str());
    }
}

ThreadQueue::~ThreadQueue() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    ready_.notify_all();
    for (auto& t : threads_) t.join();
}

void ThreadQueue::async(Task task) {
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    ready_.notify_one();
}

void ThreadQueue::waitIdle() {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return tasks_.empty() && busy_ == 0; });
}

void ThreadQueue::work() {
    std::unique_lock lock(mutex_);
    for (;;) {
        ready_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
        if (tasks_.empty()) return;  // stopping, and everything queued has run
        Task task = std::move(tasks_.front());
        tasks_.pop_front();
        ++busy_;
        lock.unlock();
        task();
        task = nullptr;  // release captures before reporting idle
        lock.lock();
        --busy_;
        if (tasks_.empty() && busy_ == 0) idle_.notify_all();
    }
}

}  // namespace vt::dispatch
