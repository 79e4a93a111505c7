#include "guard/output_guard.h"

namespace vt::guard {

OutputGuard::OutputGuard(dispatch::MainQueue& queue, OutputRestorer& restorer, GuardHooks hooks,
                         double launchedAt)
    : queue_(queue), restorer_(restorer), hooks_(std::move(hooks)), launchedAt_(launchedAt) {}

OutputGuard::~OutputGuard() {
    stop();
}

void OutputGuard::start() {
    if (timer_) return;
    // A zero delay rather than post(): the pass can then be cancelled with
    // the guard, and a guard destroyed before the queue turns is never called.
    first_ = queue_.postAfter(0.0, [this] { guardOutput(); });
    timer_ = queue_.repeat(intervalSeconds, [this] { guardOutput(); });
}

void OutputGuard::stop() {
    if (first_) first_->cancel();
    if (timer_) timer_->cancel();
    first_.reset();
    timer_.reset();
}

void OutputGuard::guardOutput() {
    if (hooks_.isRunning && hooks_.isRunning()) return;

    const bool early = queue_.now() - launchedAt_ <= autoResumeSeconds;
    if (early && hooks_.hasEnabledRow && hooks_.hasEnabledRow() && restorer_.defaultIsCapture()) {
        if (hooks_.holdNetworkRows) hooks_.holdNetworkRows();
        if (hooks_.startStop) hooks_.startStop();
        if (hooks_.isRunning && hooks_.isRunning()) return;
        if (hooks_.releaseHeldRows) hooks_.releaseHeldRows();
    }

    if (std::optional<std::string> name = restorer_.handBackIfStranded()) {
        if (hooks_.restored) hooks_.restored(RestoredOutput{*name, false});
    }
}

}  // namespace vt::guard
