// The model's main queue when the window runs: Qt's event loop on the thread
// that made the queue (the GUI thread). Tasks posted from any thread run
// there in the order they were posted; timers always live on that thread,
// whichever thread asked for them.
#pragma once

#include <memory>

#include "dispatch/main_queue.h"

class QObject;

namespace vt::ui {

class QtMainQueue final : public dispatch::MainQueue {
  public:
    // Make it on the thread that runs the Qt event loop, after the
    // application object exists. It must outlive every task and timer handle
    // it gave out.
    QtMainQueue();
    ~QtMainQueue() override;
    QtMainQueue(const QtMainQueue&) = delete;
    QtMainQueue& operator=(const QtMainQueue&) = delete;

    void post(dispatch::Task task) override;
    std::unique_ptr<dispatch::TimerHandle> postAfter(double seconds, dispatch::Task task) override;
    std::unique_ptr<dispatch::TimerHandle> repeat(double seconds, dispatch::Task task) override;
    double now() const override;
    bool isMainThread() const override;

  private:
    std::unique_ptr<dispatch::TimerHandle> schedule(double seconds, dispatch::Task task,
                                                    bool repeating);

    // Lives on the main thread: the receiver of posted tasks and the parent
    // of every timer.
    std::unique_ptr<QObject> context_;
};

}  // namespace vt::ui
