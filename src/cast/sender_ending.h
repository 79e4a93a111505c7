// How a Cast sender ends, the same for the WAV and the clock-synced path.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cast/cast_channel.h"
#include "dispatch/main_queue.h"

namespace vt::cast {

// Asks the TV to stop our session's app when `stopTV` and a session exists,
// closing the channel once the STOP is written (or after `writeWaitSeconds`,
// should the write never finish); otherwise closes the channel at once. On
// the sender's queue.
void endChannel(const std::shared_ptr<CastChannel>& channel,
                const std::optional<std::string>& sessionID, bool stopTV,
                dispatch::MainQueue& queue, double writeWaitSeconds,
                std::vector<std::unique_ptr<dispatch::TimerHandle>>& timers);

// From a thread other than `queue`'s: runs `task` on the queue and waits up
// to `seconds` for it to call the done function it is given, so a caller
// that stops a sender knows the TV was asked before it goes on, without
// hanging on a queue that is stuck.
void runAndWait(dispatch::MainQueue& queue, double seconds,
                std::function<void(std::function<void()> done)> task);

}  // namespace vt::cast
