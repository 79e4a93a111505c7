// Pending delayed and repeating tasks of one main queue, earliest first.
// Shared by the real event loop and the virtual-time loop; not thread-safe
// by itself (the owner locks around it).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <queue>
#include <vector>

#include "dispatch/main_queue.h"

namespace vt::dispatch {

struct TimerState {
    std::atomic<bool> cancelled{false};
};

// The handle a caller keeps; dropping it cancels the timer.
class SharedTimerHandle final : public TimerHandle {
  public:
    explicit SharedTimerHandle(std::shared_ptr<TimerState> state) : state_(std::move(state)) {}
    ~SharedTimerHandle() override { cancel(); }
    void cancel() override { state_->cancelled.store(true, std::memory_order_release); }

  private:
    std::shared_ptr<TimerState> state_;
};

struct TimerEntry {
    double due = 0;
    uint64_t seq = 0;            // equal due times run in order of scheduling
    double interval = 0;         // 0 for a one-shot
    std::shared_ptr<Task> task;  // shared so a repeating entry can be re-queued cheaply
    std::shared_ptr<TimerState> state;

    bool cancelled() const { return state->cancelled.load(std::memory_order_acquire); }
};

class TimerHeap {
  public:
    // Schedules `task` at `due`; returns the handle that cancels it.
    std::unique_ptr<TimerHandle> schedule(double due, double interval, Task task);
    // Puts a repeating entry back for its next run.
    void reschedule(TimerEntry entry, double due);
    // The earliest live due time, dropping cancelled entries on the way.
    std::optional<double> nextDue();
    // Removes and returns the earliest live entry if it is due at or before `now`.
    std::optional<TimerEntry> popDue(double now);
    // Live entries (cancelled ones still queued are not counted).
    size_t live() const;

  private:
    struct Later {
        bool operator()(const TimerEntry& a, const TimerEntry& b) const {
            return a.due != b.due ? a.due > b.due : a.seq > b.seq;
        }
    };
    std::priority_queue<TimerEntry, std::vector<TimerEntry>, Later> heap_;
    uint64_t nextSeq_ = 0;
};

}  // namespace vt::dispatch
