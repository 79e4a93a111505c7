// Following another PTP clock (a receiver that insists on leading): the
// offset of its time from ours, from its Sync and Follow_Up and our own
// Delay_Req and its Delay_Resp, apart from any socket. Times are nanoseconds
// of CLOCK_REALTIME, the same clock the grandmaster uses, so that either way
// "PTP time" is our clock plus `offsetNs()`.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <optional>

#include "airplay_tool/ptp/ptp_message.h"

namespace vt::airplay_tool::ptp {

// How usable the shared clock is, in the words of the tool's clock_ready lines.
enum class ClockState { cold, probing, ready, stalled };
const char* clockStateName(ClockState state);

class Follower {
  public:
    // Unanswered this long, the clock is stalled.
    static constexpr int64_t stallNs = 5'000'000'000;
    // Offsets that must agree before the clock counts as ready.
    static constexpr size_t offsetsForReady = 4;
    static constexpr size_t offsetsKept = 8;
    static constexpr int64_t delayReqIntervalNs = 1'000'000'000;

    // `startedNs`: when listening began; a master unheard for `stallNs` from then is stalled.
    Follower(PortIdentity ownPort, int64_t startedNs, uint8_t transportSpecific = 1);

    // Each message as it arrives, with its receive time; a message from a
    // clock other than the one followed is ignored (the first Announce picks it).
    void receive(const Message& message, int64_t receivedNs);
    // A Delay_Req when one is due (and a master is known); the caller sends
    // it and reports when it left.
    std::optional<Message> delayRequest(int64_t nowNs);
    void delayRequestSent(uint16_t sequence, int64_t sentNs);

    ClockState state(int64_t nowNs) const;
    // The master's time minus ours, the median of the recent measurements.
    std::optional<int64_t> offsetNs() const;
    std::optional<ClockIdentity> master() const;
    std::optional<int64_t> meanPathDelayNs() const { return pathDelay_; }

  private:
    void measured(int64_t masterMinusOurs);

    PortIdentity own_;
    int64_t startedNs_;
    uint8_t transportSpecific_;
    std::optional<PortIdentity> master_;
    std::optional<int64_t> firstHeardNs_, lastSyncNs_;
    // The Sync whose Follow_Up is awaited, and the last complete pair.
    std::optional<uint16_t> syncSequence_;
    int64_t syncReceivedNs_ = 0, syncCorrectionNs_ = 0;
    std::optional<int64_t> t1_, t2_;
    std::optional<uint16_t> delaySequence_;
    std::optional<int64_t> t3_;
    uint16_t nextDelaySequence_ = 0;
    std::optional<int64_t> lastDelayReqNs_;
    std::optional<int64_t> pathDelay_;
    std::deque<int64_t> offsets_;
};

}  // namespace vt::airplay_tool::ptp
