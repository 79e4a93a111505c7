// When a session's PTP clock is usable, in the words of the tool's
// `[STATUS] clock_ready mode=ptp state=...` lines: probing until the receiver
// has been heard on the PTP ports and the clock is ready, ready then, and
// stalled when nothing has been heard 5 s after probing began (UDP 319 and 320
// blocked, or a receiver that keeps its own time). A line is due at the start
// and at every change of state; none after ready.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "airplay_tool/ptp/ptp_shared.h"

namespace vt::airplay_tool::ptp {

struct ClockReadyLine {
    std::string state;          // "probing", "ready" or "stalled"
    int64_t streakMs = 0;       // since the receiver was first heard
    int exchanges = 0;          // messages heard from it
    int64_t readyInMs = 0;      // from the start of probing to ready
    int64_t readyAtUnixMs = 0;  // when it became ready
    bool operator==(const ClockReadyLine&) const = default;
};

class ClockReadiness {
  public:
    static constexpr int64_t stallMs = 5000;

    explicit ClockReadiness(int64_t startMs) : startMs_(startMs) {}

    // `status`: what the clock says now, with the receiver's `heard`; none
    // when it could not be asked. A line when one is due.
    std::optional<ClockReadyLine> update(int64_t nowMs, int64_t nowUnixMs,
                                         const std::optional<SharedStatus>& status);
    bool isReady() const { return last_ && last_->state == "ready"; }

  private:
    int64_t startMs_;
    std::optional<int64_t> firstHeardMs_;
    std::optional<ClockReadyLine> last_;
};

}  // namespace vt::airplay_tool::ptp
