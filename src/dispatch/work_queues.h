// Worker queues with a label ("vellatone.<name>"). A serial queue runs its
// tasks one at a time in order on one thread; a concurrent queue spreads
// them over a few threads. Destroying a queue finishes what was queued.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dispatch/main_queue.h"

namespace vt::dispatch {

class ThreadQueue : public WorkQueue {
  public:
    ThreadQueue(std::string label, unsigned threads);
    ~ThreadQueue() override;
    ThreadQueue(const ThreadQueue&) = delete;
    ThreadQueue& operator=(const ThreadQueue&) = delete;

    void async(Task task) override;
    // Blocks until every task queued so far has finished.
    void waitIdle();
    const std::string& label() const { return label_; }

  private:
    void work();

    std::string label_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::condition_variable idle_;
    std::deque<Task> tasks_;
    unsigned busy_ = 0;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

class SerialQueue final : public ThreadQueue {
  public:
    explicit SerialQueue(std::string label) : ThreadQueue(std::move(label), 1) {}
};

class ConcurrentQueue final : public ThreadQueue {
  public:
    ConcurrentQueue(std::string label, unsigned threads)
        : ThreadQueue(std::move(label), threads ? threads : 1) {}
};

}  // namespace vt::dispatch
