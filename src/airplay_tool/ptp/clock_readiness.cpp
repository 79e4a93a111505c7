#include "airplay_tool/ptp/clock_readiness.h"

namespace vt::airplay_tool::ptp {

std::optional<ClockReadyLine> ClockReadiness::update(int64_t nowMs, int64_t nowUnixMs,
                                                     const std::optional<SharedStatus>& status) {
    if (isReady()) return std::nullopt;
    ClockReadyLine line;
    const bool following = status && status->mode == "follow";
    if (following) {
        // The follower hears the master or stalls by its own clock.
        if (status->state != "probing" && status->state != "cold" && !firstHeardMs_)
            firstHeardMs_ = nowMs;
        line.state = status->state == "cold" ? "probing" : status->state;
    } else {
        // Leading, the clock is ours: it is usable once the receiver speaks PTP to us.
        const bool heard = status && status->heard.value_or(false);
        if (heard && !firstHeardMs_) firstHeardMs_ = nowMs;
        if (heard && status->state == "ready")
            line.state = "ready";
        else if (!firstHeardMs_ && nowMs - startMs_ >= stallMs)
            line.state = "stalled";
        else
            line.state = "probing";
    }
    line.exchanges = status ? status->exchanges : 0;
    line.streakMs = firstHeardMs_ ? nowMs - *firstHeardMs_ : 0;
    if (line.state == "ready") {
        line.readyInMs = nowMs - startMs_;
        line.readyAtUnixMs = nowUnixMs;
    }
    if (last_ && last_->state == line.state) return std::nullopt;
    last_ = line;
    return line;
}

}  // namespace vt::airplay_tool::ptp
