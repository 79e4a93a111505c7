// When each frame of the stream is heard, and what the sync packets say so
// that the receiver agrees. Times are Unix nanoseconds (CLOCK_REALTIME): the
// same clock answers the receiver's timing requests and stamps sync packets,
// and START_UNIX_MS is given on it.
#pragma once

#include <cstdint>

#include "airplay_tool/rtp_packets.h"

namespace vt::airplay_tool {

inline constexpr int kRaopSampleRate = 44100;
// What the receiver adds to every latency a sync packet announces.
inline constexpr uint32_t kFixedLatencyFrames = 11025;

int64_t unixNowNs();
NtpTime ntpFromUnixNs(int64_t unixNs);
int64_t unixNsFromNtp(NtpTime ntp);

struct SyncFields {
    uint32_t rtpLessLatency = 0;
    NtpTime ntp = 0;
    uint32_t rtp = 0;
};

class StreamTimeline {
  public:
    // Frame 0 (RTP `firstTimestamp`) is heard at `startUnixNs`; sync packets
    // announce `latencyFrames` (at least kFixedLatencyFrames).
    StreamTimeline(int64_t startUnixNs, uint32_t firstTimestamp, uint32_t latencyFrames);

    int64_t playUnixNs(int64_t frame) const;
    // The earliest a frame goes out: its play time less the announced latency,
    // which keeps a fast writer from running ahead of the receiver's buffer.
    int64_t sendNotBeforeUnixNs(int64_t frame) const;
    uint32_t rtpOf(int64_t frame) const { return firstTimestamp_ + static_cast<uint32_t>(frame); }
    // The frame heard at now + latency, as a sync packet sent now says it.
    SyncFields syncAt(int64_t nowUnixNs) const;
    // The frame being heard at this instant (may be before frame 0).
    int64_t frameHeardAt(int64_t unixNs) const;

    int64_t startUnixNs() const { return startUnixNs_; }
    uint32_t latencyFrames() const { return latencyFrames_; }

  private:
    int64_t startUnixNs_;
    uint32_t firstTimestamp_;
    uint32_t latencyFrames_;
};

// The announced latency for a stream whose first frame is heard `leadNs`
// after it is ready to go: as close to that lead as the receiver accepts.
uint32_t latencyFramesForLead(int64_t leadNs);

}  // namespace vt::airplay_tool
