// Keeps the system output from being left on the capture sink while nothing
// runs. Every two seconds, while the program is stopped:
//
// - in the first 20 seconds after launch, if the default sink is the capture
//   sink and some row is enabled, the user evidently expects the program to
//   be on (it was on when it went away, across an update or a crash): it is
//   started, with network rows held until the user lets them play;
// - otherwise the output is handed back to a real sink, and the model is
//   told so it can say so.
//
// What belongs to the model (its rows, its one switch) comes in as hooks, so
// that the rule runs here and is tested on a virtual clock. Main thread only.
#pragma once

#include <functional>
#include <memory>

#include "dispatch/main_queue.h"
#include "guard/output_restorer.h"
#include "guard/restored_output.h"

namespace vt::guard {

struct GuardHooks {
    std::function<bool()> isRunning;
    // At least one row is not disabled.
    std::function<bool()> hasEnabledRow;
    // Before an automatic start: mark every AirPlay and Cast row held after
    // the restart, and show the band about held rows again.
    std::function<void()> holdNetworkRows;
    // The automatic start failed: clear the hold on every row.
    std::function<void()> releaseHeldRows;
    // The model's one switch.
    std::function<void()> startStop;
    // The output was handed back to this sink.
    std::function<void(const RestoredOutput&)> restored;
};

class OutputGuard {
  public:
    static constexpr double intervalSeconds = 2.0;
    static constexpr double autoResumeSeconds = 20.0;

    // `launchedAt` is the model's creation time on `queue`'s clock.
    OutputGuard(dispatch::MainQueue& queue, OutputRestorer& restorer, GuardHooks hooks,
                double launchedAt);
    ~OutputGuard();
    OutputGuard(const OutputGuard&) = delete;
    OutputGuard& operator=(const OutputGuard&) = delete;

    // One pass on the next turn of the queue, then one every two seconds.
    void start();
    void stop();
    // One pass.
    void guardOutput();

  private:
    dispatch::MainQueue& queue_;
    OutputRestorer& restorer_;
    GuardHooks hooks_;
    double launchedAt_;
    std::unique_ptr<dispatch::TimerHandle> first_;
    std::unique_ptr<dispatch::TimerHandle> timer_;
};

}  // namespace vt::guard
