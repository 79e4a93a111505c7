#include "sendspin/jitter_buffer.h"

#include <algorithm>
#include <cmath>

namespace vt::sendspin {

namespace {
constexpr double kFrameUs = 20.833333333333332;
constexpr double kHalfFrameUs = 10.416666666666666;
constexpr double kKeepBehindUs = 3'000'000;
constexpr double kKeepBehindCursorUs = 1'000'000;
}  // namespace

SendspinJitterBuffer::SendspinJitterBuffer() {
    chunks_.reserve(1'024);
}

std::vector<int16_t> SendspinJitterBuffer::samples(std::string_view pcm) {
    const size_t count = (pcm.size() / 2) & ~size_t{1};
    std::vector<int16_t> out(count);
    for (size_t i = 0; i < count; ++i) {
        const auto lo = static_cast<uint8_t>(pcm[2 * i]);
        const auto hi = static_cast<uint8_t>(pcm[2 * i + 1]);
        out[i] = static_cast<int16_t>(static_cast<uint16_t>(lo | (hi << 8)));
    }
    return out;
}

void SendspinJitterBuffer::push(int64_t playAtUs, std::string_view pcm) {
    push(playAtUs, samples(pcm));
}

void SendspinJitterBuffer::push(int64_t playAtUs, std::vector<int16_t> samples) {
    if (samples.size() < 2) return;
    if (samples.size() % 2 != 0) samples.pop_back();
    if (!chunks_.empty() && chunks_.back().startUs >= playAtUs) {
        // The timeline went back: what was queued from here on is superseded.
        std::erase_if(chunks_, [&](const Chunk& c) { return c.startUs >= playAtUs; });
    }
    const size_t frames = samples.size() / 2;
    chunks_.push_back(
        Chunk{playAtUs, std::move(samples), frames,
              static_cast<double>(playAtUs) + static_cast<double>(frames) * kFrameUs});

    const double at = static_cast<double>(playAtUs);
    auto firstKept = std::find_if(chunks_.begin(), chunks_.end(),
                                  [&](const Chunk& c) { return !(c.endUs < at - kKeepBehindUs); });
    if (cursorUs_) {
        firstKept = std::find_if(firstKept, chunks_.end(), [&](const Chunk& c) {
            return !(c.endUs < *cursorUs_ - kKeepBehindCursorUs);
        });
    }
    chunks_.erase(chunks_.begin(), firstKept);
}

void SendspinJitterBuffer::read(float* into, size_t frames, int64_t startUs) {
    const double wanted = static_cast<double>(startUs);
    const double cursor = cursorUs_.value_or(wanted);
    const double diff = (wanted - cursor) / kFrameUs;
    double position = cursor;
    if (std::abs(diff) > jumpFrames) {
        position = wanted;
    } else if (diff >= 1) {
        position = cursor + kFrameUs;
    } else if (diff <= -1) {
        position = cursor - kFrameUs;
    }

    size_t c = 0;
    while (c < chunks_.size() && !(chunks_[c].endUs > position)) ++c;
    constexpr float scale = 1.0f / 32768.0f;
    for (size_t i = 0; i < frames; ++i) {
        const double t = position + static_cast<double>(i) * kFrameUs;
        while (c < chunks_.size() && chunks_[c].endUs <= t) ++c;
        if (c >= chunks_.size() || t + kHalfFrameUs < static_cast<double>(chunks_[c].startUs)) {
            into[2 * i] = 0;
            into[2 * i + 1] = 0;
            continue;
        }
        const Chunk& chunk = chunks_[c];
        const double index = std::round((t - static_cast<double>(chunk.startUs)) / kFrameUs);
        const size_t k =
            static_cast<size_t>(std::clamp(index, 0.0, static_cast<double>(chunk.frames - 1)));
        into[2 * i] = static_cast<float>(chunk.samples[2 * k]) * scale;
        into[2 * i + 1] = static_cast<float>(chunk.samples[2 * k + 1]) * scale;
    }
    cursorUs_ = position + static_cast<double>(frames) * kFrameUs;
}

void SendspinJitterBuffer::clear() {
    chunks_.clear();
    cursorUs_.reset();
}

}  // namespace vt::sendspin
