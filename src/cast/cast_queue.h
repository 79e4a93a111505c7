// The serial queue, with timers, that every Cast sender's protocol work runs
// on: an event loop on a thread of its own, "vellatone.cast". Each sender's
// work there is short, so one queue serves them all.
#pragma once

#include <pthread.h>

#include <thread>

#include "dispatch/event_loop.h"

namespace vt::cast {

class CastQueue {
  public:
    CastQueue()
        : thread_([this] {
              pthread_setname_np(pthread_self(), "vellatone.cast");
              loop_.run();
          }) {}
    ~CastQueue() {
        // Through the loop itself: a quit before the loop began would be forgotten.
        loop_.post([this] { loop_.quit(); });
        thread_.join();
    }
    CastQueue(const CastQueue&) = delete;
    CastQueue& operator=(const CastQueue&) = delete;

    dispatch::MainQueue& queue() { return loop_; }

  private:
    dispatch::EventLoop loop_;
    std::thread thread_;
};

}  // namespace vt::cast
