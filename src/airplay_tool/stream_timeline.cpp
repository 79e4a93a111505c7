#include "airplay_tool/stream_timeline.h"

#include <time.h>

#include <algorithm>
#include <cmath>

namespace vt::airplay_tool {

namespace {
constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr uint64_t kNtpUnixEpochOffsetSeconds = 2'208'988'800ULL;
// A receiver rejects a latency over 3/4 of its 1024-packet buffer less the
// fixed part; stay clear of that edge.
constexpr uint32_t kMaxLatencyFrames = 250'000;

int64_t framesToNs(int64_t frames) {
    return static_cast<int64_t>(
        std::llround(static_cast<double>(frames) * kNsPerSecond / kRaopSampleRate));
}
}  // namespace

int64_t unixNowNs() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return int64_t{ts.tv_sec} * kNsPerSecond + ts.tv_nsec;
}

NtpTime ntpFromUnixNs(int64_t unixNs) {
    const uint64_t seconds =
        static_cast<uint64_t>(unixNs / kNsPerSecond) + kNtpUnixEpochOffsetSeconds;
    const uint64_t ns = static_cast<uint64_t>(unixNs % kNsPerSecond);
    const uint64_t fraction = (ns << 32) / kNsPerSecond;
    return seconds << 32 | fraction;
}

int64_t unixNsFromNtp(NtpTime ntp) {
    const int64_t seconds = static_cast<int64_t>(ntp >> 32) - int64_t{kNtpUnixEpochOffsetSeconds};
    const int64_t ns = static_cast<int64_t>(((ntp & 0xffffffffULL) * kNsPerSecond) >> 32);
    return seconds * kNsPerSecond + ns;
}

StreamTimeline::StreamTimeline(int64_t startUnixNs, uint32_t firstTimestamp, uint32_t latencyFrames)
    : startUnixNs_(startUnixNs),
      firstTimestamp_(firstTimestamp),
      latencyFrames_(std::clamp(latencyFrames, kFixedLatencyFrames, kMaxLatencyFrames)) {}

int64_t StreamTimeline::playUnixNs(int64_t frame) const {
    return startUnixNs_ + framesToNs(frame);
}

int64_t StreamTimeline::sendNotBeforeUnixNs(int64_t frame) const {
    return playUnixNs(frame) - framesToNs(latencyFrames_);
}

int64_t StreamTimeline::frameHeardAt(int64_t unixNs) const {
    const double seconds = static_cast<double>(unixNs - startUnixNs_) / kNsPerSecond;
    return static_cast<int64_t>(std::floor(seconds * kRaopSampleRate));
}

SyncFields StreamTimeline::syncAt(int64_t nowUnixNs) const {
    // The frame heard at now + latency; its NTP time is worked back from the
    // frame so that every sync lies on one exact line of 44100 frames a second.
    const int64_t frame = frameHeardAt(nowUnixNs) + latencyFrames_;
    SyncFields s;
    s.rtp = rtpOf(frame);
    s.rtpLessLatency = s.rtp - (latencyFrames_ - kFixedLatencyFrames);
    s.ntp = ntpFromUnixNs(playUnixNs(frame) - framesToNs(latencyFrames_));
    return s;
}

uint32_t latencyFramesForLead(int64_t leadNs) {
    const double frames =
        static_cast<double>(std::max<int64_t>(leadNs, 0)) * kRaopSampleRate / kNsPerSecond;
    return std::clamp(static_cast<uint32_t>(std::min(frames, 1e9)), kFixedLatencyFrames,
                      kMaxLatencyFrames);
}

}  // namespace vt::airplay_tool
