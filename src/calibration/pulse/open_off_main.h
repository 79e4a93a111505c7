// Opening a stream waits for the sound server's answers, and a server that
// has stopped answering leaves libpulse waiting for half a minute per
// request. The calibration's streams are therefore opened on a thread of
// their own, and the result is handed to the main queue; a result that comes
// after its opener is gone is simply dropped.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "dispatch/main_queue.h"

namespace vt::calibration {

class OpenOffMain {
  public:
    explicit OpenOffMain(dispatch::MainQueue& main) : shared_(std::make_shared<Shared>(&main)) {}
    ~OpenOffMain() {
        std::lock_guard guard(shared_->mutex);
        shared_->main = nullptr;
    }
    OpenOffMain(const OpenOffMain&) = delete;
    OpenOffMain& operator=(const OpenOffMain&) = delete;

    // Runs `work` off the main thread, then `done` with its result on the
    // main queue.
    template <class Result>
    void run(std::function<Result()> work, std::function<void(Result)> done) {
        std::thread([shared = shared_, work = std::move(work), done = std::move(done)]() mutable {
            auto result = std::make_shared<Result>(work());
            std::lock_guard guard(shared->mutex);
            if (!shared->main) {
                // The program is ending and its main queue with it; a stream
                // closed here could race the queue's last timers, so it is
                // left to the process's end.
                static_cast<void>(new std::shared_ptr<Result>(std::move(result)));
                return;
            }
            shared->main->post([result, done = std::move(done)] { done(std::move(*result)); });
        }).detach();
    }

  private:
    struct Shared {
        explicit Shared(dispatch::MainQueue* m) : main(m) {}
        std::mutex mutex;
        dispatch::MainQueue* main;
    };
    std::shared_ptr<Shared> shared_;
};

}  // namespace vt::calibration
