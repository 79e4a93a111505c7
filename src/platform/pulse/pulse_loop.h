// One connection to the sound server with its own threaded main loop. The
// backend keeps three: one for the mirror and the writes, one that carries
// nothing but our playback streams, so audio never waits behind a
// device-list query, and one for the capture alone.
#pragma once

#include <pulse/pulseaudio.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace vt::platform::pulse {

class PulseLoop {
  public:
    // Connects to the default server (PULSE_SERVER and the usual places);
    // null when no server answers.
    static std::shared_ptr<PulseLoop> connect(const std::string& clientName);
    ~PulseLoop();
    PulseLoop(const PulseLoop&) = delete;
    PulseLoop& operator=(const PulseLoop&) = delete;

    pa_threaded_mainloop* loop() const { return loop_; }
    pa_context* context() const { return context_; }
    bool ready() const { return ready_.load(std::memory_order_acquire); }
    // Called once on the loop's thread when a ready connection is lost (the
    // server went away). Set it under the lock.
    void setOnLost(std::function<void()> onLost) { onLost_ = std::move(onLost); }
    bool inLoopThread() const { return pa_threaded_mainloop_in_thread(loop_) != 0; }

    // Waits for an operation started under the lock; false if it never
    // completed (the connection failed). The operation is released.
    bool finish(pa_operation* op);
    void signal() { pa_threaded_mainloop_signal(loop_, 0); }

    // Holds the loop's lock; a no-op on the loop's own thread, which holds it.
    class Lock {
      public:
        explicit Lock(const PulseLoop& l) : loop_(l.inLoopThread() ? nullptr : l.loop_) {
            if (loop_) pa_threaded_mainloop_lock(loop_);
        }
        ~Lock() {
            if (loop_) pa_threaded_mainloop_unlock(loop_);
        }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

      private:
        pa_threaded_mainloop* loop_;
    };

  private:
    PulseLoop() = default;
    static void onContextState(pa_context* c, void* self);

    pa_threaded_mainloop* loop_ = nullptr;
    pa_context* context_ = nullptr;
    std::atomic<bool> ready_{false};
    std::function<void()> onLost_;
};

}  // namespace vt::platform::pulse
