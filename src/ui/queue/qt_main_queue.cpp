#include "ui/queue/qt_main_queue.h"

#include <QMetaObject>
#include <QObject>
#include <QThread>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <cmath>
#include <utility>

#include "dispatch/clock.h"

namespace vt::ui {

namespace {

// What a handle and its timer share. `timer` is touched only on the main
// thread; `cancelled` may be set from anywhere and is checked before each run,
// so a timer cancelled from another thread may still be waiting to be deleted
// but never runs its task again.
struct TimerState {
    std::atomic<bool> cancelled{false};
    QTimer* timer = nullptr;
    dispatch::Task task;
};

class QtTimerHandle final : public dispatch::TimerHandle {
  public:
    QtTimerHandle(QObject* context, std::shared_ptr<TimerState> state)
        : context_(context), state_(std::move(state)) {}
    ~QtTimerHandle() override { cancel(); }

    void cancel() override {
        if (state_->cancelled.exchange(true)) return;
        auto state = state_;
        auto drop = [state] {
            delete state->timer;
            state->timer = nullptr;
            state->task = nullptr;
        };
        if (QThread::currentThread() == context_->thread())
            drop();
        else
            QMetaObject::invokeMethod(context_, drop, Qt::QueuedConnection);
    }

  private:
    QObject* context_;
    std::shared_ptr<TimerState> state_;
};

int milliseconds(double seconds) {
    if (!(seconds > 0)) return 0;
    return int(std::min(std::llround(seconds * 1000.0), 24LL * 3600 * 1000));
}

}  // namespace

QtMainQueue::QtMainQueue() : context_(std::make_unique<QObject>()) {}

QtMainQueue::~QtMainQueue() = default;

void QtMainQueue::post(dispatch::Task task) {
    // Queued calls to one receiver are delivered in the order they were
    // queued, from whichever threads.
    QMetaObject::invokeMethod(
        context_.get(), [task = std::move(task)] { task(); }, Qt::QueuedConnection);
}

std::unique_ptr<dispatch::TimerHandle> QtMainQueue::postAfter(double seconds, dispatch::Task task) {
    return schedule(seconds, std::move(task), false);
}

std::unique_ptr<dispatch::TimerHandle> QtMainQueue::repeat(double seconds, dispatch::Task task) {
    return schedule(seconds, std::move(task), true);
}

std::unique_ptr<dispatch::TimerHandle> QtMainQueue::schedule(double seconds, dispatch::Task task,
                                                             bool repeating) {
    auto state = std::make_shared<TimerState>();
    state->task = std::move(task);
    QObject* context = context_.get();
    auto arm = [context, state, interval = milliseconds(seconds), repeating] {
        if (state->cancelled) return;
        auto* timer = new QTimer(context);
        timer->setTimerType(Qt::PreciseTimer);
        timer->setSingleShot(!repeating);
        timer->setInterval(interval);
        // The timer's slot holds the state weakly: the state owns the timer's
        // task, and the timer dies with the state's cancellation.
        std::weak_ptr<TimerState> weak = state;
        QObject::connect(timer, &QTimer::timeout, context, [weak, repeating] {
            auto s = weak.lock();
            if (!s || s->cancelled || !s->task) return;
            if (repeating) {
                // Copy, so that a task that cancels its own timer survives.
                dispatch::Task task = s->task;
                task();
            } else {
                dispatch::Task task = std::move(s->task);
                s->task = nullptr;
                task();
            }
        });
        state->timer = timer;
        timer->start();
    };
    if (isMainThread())
        arm();
    else
        QMetaObject::invokeMethod(context, arm, Qt::QueuedConnection);
    return std::make_unique<QtTimerHandle>(context, state);
}

double QtMainQueue::now() const {
    return dispatch::monotonicSeconds();
}

bool QtMainQueue::isMainThread() const {
    return QThread::currentThread() == context_->thread();
}

}  // namespace vt::ui
