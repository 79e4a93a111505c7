#include "dispatch/timer_heap.h"

namespace vt::dispatch {

std::unique_ptr<TimerHandle> TimerHeap::schedule(double due, double interval, Task task) {
    auto state = std::make_shared<TimerState>();
    heap_.push(
        TimerEntry{due, nextSeq_++, interval, std::make_shared<Task>(std::move(task)), state});
    return std::make_unique<SharedTimerHandle>(std::move(state));
}

void TimerHeap::reschedule(TimerEntry entry, double due) {
    entry.due = due;
    entry.seq = nextSeq_++;
    heap_.push(std::move(entry));
}

std::optional<double> TimerHeap::nextDue() {
    while (!heap_.empty() && heap_.top().cancelled()) heap_.pop();
    if (heap_.empty()) return std::nullopt;
    return heap_.top().due;
}

std::optional<TimerEntry> TimerHeap::popDue(double now) {
    auto due = nextDue();
    if (!due || *due > now) return std::nullopt;
    TimerEntry entry = heap_.top();
    heap_.pop();
    return entry;
}

size_t TimerHeap::live() const {
    // The heap cannot be walked; copy it. Only tests ask.
    auto copy = heap_;
    size_t n = 0;
    while (!copy.empty()) {
        if (!copy.top().cancelled()) ++n;
        copy.pop();
    }
    return n;
}

}  // namespace vt::dispatch
