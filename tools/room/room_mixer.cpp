#include "room_mixer.h"

#include <cmath>

namespace vt::room {

void SpeakerHistory::append(const float* frames, uint32_t count, double hostSec) {
    const int64_t start = written_.load(std::memory_order_relaxed);
    for (uint32_t i = 0; i < count; ++i) {
        const float v = frames ? 0.5f * (frames[2 * i] + frames[2 * i + 1]) : 0.0f;
        ring_[static_cast<size_t>(start + i) % kFrames] = v;
    }
    written_.store(start + count, std::memory_order_release);
    if (hostSec <= 0) return;
    sequence_.fetch_add(1, std::memory_order_acq_rel);
    clockFrame_.store(start, std::memory_order_relaxed);
    clockHostSec_.store(hostSec, std::memory_order_relaxed);
    sequence_.fetch_add(1, std::memory_order_release);
}

SpeakerHistory::Reading SpeakerHistory::beginRead() const {
    Reading r;
    for (int tries = 0; tries < 4; ++tries) {
        const uint64_t before = sequence_.load(std::memory_order_acquire);
        if (before % 2) continue;
        r.frame = clockFrame_.load(std::memory_order_relaxed);
        r.hostSec = clockHostSec_.load(std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_acquire);
        if (sequence_.load(std::memory_order_relaxed) == before) {
            r.valid = before > 0;
            break;
        }
    }
    r.written = written_.load(std::memory_order_acquire);
    return r;
}

float SpeakerHistory::at(const Reading& r, double hostSec) const {
    if (!r.valid) return 0.0f;
    const double position = static_cast<double>(r.frame) + (hostSec - r.hostSec) * rate_;
    const auto whole = static_cast<int64_t>(std::floor(position));
    // The writer may be overwriting the oldest part of the ring: keep well clear.
    if (whole + 1 >= r.written || whole < r.written - static_cast<int64_t>(kFrames / 2))
        return 0.0f;
    const auto frac = static_cast<float>(position - static_cast<double>(whole));
    const float a = ring_[static_cast<size_t>(whole) % kFrames];
    const float b = ring_[static_cast<size_t>(whole + 1) % kFrames];
    return a + (b - a) * frac;
}

RoomMixer::RoomMixer(std::vector<std::unique_ptr<SpeakerHistory>>& speakers, double rate,
                     float noise)
    : speakers_(speakers), rate_(rate), noise_(noise), readings_(speakers.size()) {
    setPaths({});
}

void RoomMixer::setPaths(std::vector<Path> paths) {
    kept_.push_back(std::make_unique<const std::vector<Path>>(std::move(paths)));
    paths_.store(kept_.back().get(), std::memory_order_release);
}

void RoomMixer::render(float* frames, uint32_t count, double presentSec) {
    const std::vector<Path>& paths = *paths_.load(std::memory_order_acquire);
    for (size_t s = 0; s < speakers_.size(); ++s) readings_[s] = speakers_[s]->beginRead();
    for (uint32_t i = 0; i < count; ++i) {
        const double t = presentSec + static_cast<double>(i) / rate_;
        float v = 0.0f;
        if (presentSec > 0) {
            for (const Path& p : paths)
                v += p.gain * speakers_[p.speaker]->at(readings_[p.speaker], t - p.delaySec);
        }
        // xorshift64: a steady hiss under everything.
        noiseState_ ^= noiseState_ << 13;
        noiseState_ ^= noiseState_ >> 7;
        noiseState_ ^= noiseState_ << 17;
        const float u = static_cast<float>(noiseState_ >> 40) / static_cast<float>(1 << 24);
        v += noise_ * (2.0f * u - 1.0f);
        frames[2 * i] = v;
        frames[2 * i + 1] = v;
    }
}

}  // namespace vt::room
