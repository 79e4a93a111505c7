// What sync packets say and when frames go out: the receiver must hear frame
// F at start + F / 44100 s, which it works out from the sync packets alone.
#include <gtest/gtest.h>

#include "airplay_tool/stream_timeline.h"

using namespace vt::airplay_tool;

namespace {

constexpr int64_t kNs = 1'000'000'000;

// What the receiver does with a sync packet: frame F is heard at
// ntp + (F - rtp) / rate + (rtp - rtpLessLatency + 11025) / rate.
int64_t heardAtAsTheReceiverSees(const SyncFields& s, uint32_t rtpOfFrame) {
    const int64_t latency = static_cast<int64_t>(s.rtp - s.rtpLessLatency) + kFixedLatencyFrames;
    const int64_t offset = static_cast<int32_t>(rtpOfFrame - s.rtp);
    return unixNsFromNtp(s.ntp) + (offset + latency) * kNs / kRaopSampleRate;
}

TEST(StreamTimeline, EverySyncPlacesEveryFrameAtItsTime) {
    const int64_t start = int64_t{1'800'000'000} * kNs + 123'456'789;
    for (uint32_t latency : {kFixedLatencyFrames, uint32_t{66150}}) {
        StreamTimeline t(start, 0xFFFF0000u, latency);  // the RTP time wraps on the way
        for (int64_t now : {start - 2 * kNs, start, start + 7 * kNs + 1}) {
            const SyncFields s = t.syncAt(now);
            EXPECT_EQ(s.rtp - s.rtpLessLatency + kFixedLatencyFrames, latency);
            // The NTP time is "now", give or take a frame.
            EXPECT_LE(std::llabs(unixNsFromNtp(s.ntp) - now), kNs / kRaopSampleRate + 1);
            for (int64_t frame : {int64_t{0}, int64_t{352}, int64_t{44100 * 9 + 17}}) {
                EXPECT_NEAR(static_cast<double>(heardAtAsTheReceiverSees(s, t.rtpOf(frame))),
                            static_cast<double>(t.playUnixNs(frame)), 2000.0)
                    << "latency " << latency << " frame " << frame;
            }
        }
        // A frame goes out one latency ahead of being heard.
        EXPECT_EQ(t.playUnixNs(352) - t.sendNotBeforeUnixNs(352),
                  static_cast<int64_t>(latency) * kNs / kRaopSampleRate);
    }
}

TEST(StreamTimeline, NtpTimesRoundTripAndLatencyStaysInTheReceiversRange) {
    for (int64_t unix : {int64_t{0}, int64_t{1'795'568'177'557'000'123}}) {
        const NtpTime ntp = ntpFromUnixNs(unix);
        EXPECT_LE(std::llabs(unixNsFromNtp(ntp) - unix), 1);
    }
    EXPECT_EQ(ntpFromUnixNs(0) >> 32, 2'208'988'800u);  // seconds since 1900
    EXPECT_EQ(ntpFromUnixNs(kNs / 2) & 0xffffffffu, 0x80000000u);

    EXPECT_EQ(latencyFramesForLead(0), kFixedLatencyFrames);
    EXPECT_EQ(latencyFramesForLead(-kNs), kFixedLatencyFrames);
    EXPECT_EQ(latencyFramesForLead(kNs), 44100u);
    EXPECT_LT(latencyFramesForLead(3600 * kNs), 259'311u);  // the most a receiver accepts
    EXPECT_EQ(StreamTimeline(0, 0, 0).latencyFrames(), kFixedLatencyFrames);
}

}  // namespace
