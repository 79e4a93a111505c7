// What a phone's real-time render callback needs to place its output on the
// host's timeline. The callback cannot always reach the current figures, so a
// missing value means "unchanged" and the last good one carries on.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

namespace vt::sendspin {

class GuestRenderClock {
  public:
    std::pair<std::optional<double>, double> read(std::optional<double> offset,
                                                  std::optional<double> latency) {
        if (offset) offset_ = offset;
        if (latency) latency_ = *latency;
        return {offset_, latency_};
    }

  private:
    std::optional<double> offset_;
    double latency_ = 0;
};

namespace GuestSpeaker {

// The stamp to read from the jitter buffer for output heard at `heardAt`
// (phone seconds), reading `headroomMs` behind the host's stamps.
int64_t playoutStartUs(double heardAt, double offset, double headroomMs);

}  // namespace GuestSpeaker

}  // namespace vt::sendspin
