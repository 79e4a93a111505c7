// Turns SIGINT and SIGTERM into a call on the main queue, so that the program
// can stop the engine and give the default sink back before it ends, and
// ignores SIGPIPE for the sake of the sockets.
//
// The handler only writes the signal's number to a pipe; a small thread reads
// the pipe and posts to the queue. One watcher per process at a time; the
// previous dispositions come back when it is destroyed.
#pragma once

#include <functional>
#include <memory>
#include <thread>

#include "dispatch/main_queue.h"

namespace vt::guard {

class SignalWatcher {
  public:
    // Throws std::system_error if the pipe or the handlers cannot be set up,
    // std::logic_error if another watcher exists.
    SignalWatcher(dispatch::MainQueue& queue, std::function<void(int signal)> onSignal);
    ~SignalWatcher();
    SignalWatcher(const SignalWatcher&) = delete;
    SignalWatcher& operator=(const SignalWatcher&) = delete;

  private:
    struct Saved;
    void run();

    dispatch::MainQueue& queue_;
    std::function<void(int)> onSignal_;
    int readFd_ = -1;
    int writeFd_ = -1;
    std::unique_ptr<Saved> saved_;
    std::thread thread_;
};

}  // namespace vt::guard
