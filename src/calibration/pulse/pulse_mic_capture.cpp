#include "calibration/pulse/pulse_mic_capture.h"

#include <algorithm>
#include <cmath>

#include "platform/pulse/pulse_loop.h"
#include "platform/pulse/pulse_streams.h"

namespace vt::calibration {

namespace {
// The level meter falls by this much per block of about 5 ms.
constexpr float kLevelFallPerBlock = 0.97f;
constexpr uint64_t kFramesMask = 0xffffffffULL;
}  // namespace

PulseMicCapture::PulseMicCapture(std::shared_ptr<platform::pulse::PulseLoop> loop, double rate)
    : loop_(std::move(loop)),
      rate_(rate),
      buffer_(static_cast<size_t>(std::ceil(kMaxWindowSec * rate)), 0.0f) {}

PulseMicCapture::~PulseMicCapture() {
    // Closing waits until the stream's thread has let go of us.
    stream_.reset();
}

bool PulseMicCapture::open(const std::string& source, std::string& error) {
    auto result = platform::pulse::openRecordStream(loop_, source, static_cast<uint32_t>(rate_),
                                                    &PulseMicCapture::onBlock, this);
    if (!result.stream) {
        error = result.error;
        return false;
    }
    stream_ = std::move(result.stream);
    return true;
}

void PulseMicCapture::beginWindow() {
    const uint64_t generation = (control_.load(std::memory_order_relaxed) >> 1) + 1;
    control_.store(generation << 1 | 1, std::memory_order_release);
}

MicWindow PulseMicCapture::endWindow() {
    const uint64_t control = control_.load(std::memory_order_relaxed);
    const uint64_t generation = control >> 1;
    control_.store(generation << 1, std::memory_order_release);
    MicWindow window;
    window.sampleRate = rate_;
    const uint64_t progress = progress_.load(std::memory_order_acquire);
    if (!(control & 1) || progress >> 32 != (generation & kFramesMask)) return window;
    // The stream's thread may still be finishing a block past this count; it
    // writes only beyond it.
    const size_t frames = static_cast<size_t>(progress & kFramesMask);
    window.samples.assign(buffer_.begin(), buffer_.begin() + static_cast<long>(frames));
    window.firstFrameHostSec = firstHostSec_.load(std::memory_order_relaxed);
    return window;
}

void PulseMicCapture::onBlock(void* self, const float* frames, uint32_t count, double hostSec,
                              double streamFrame) {
    static_cast<PulseMicCapture*>(self)->append(frames, count, hostSec, streamFrame);
}

// The stream's thread: no allocation, no locks, no logging.
void PulseMicCapture::append(const float* frames, uint32_t count, double hostSec,
                             double streamFrame) {
    float peak = 0.0f;
    if (frames) {
        for (uint32_t i = 0; i < count; ++i)
            peak = std::max(peak, std::fabs(0.5f * (frames[2 * i] + frames[2 * i + 1])));
    }
    level_.store(std::max(peak, level_.load(std::memory_order_relaxed) * kLevelFallPerBlock),
                 std::memory_order_relaxed);

    const uint64_t control = control_.load(std::memory_order_acquire);
    if (!(control & 1)) return;
    const uint64_t generation = (control >> 1) & kFramesMask;
    if (generation != generation_) {
        generation_ = generation;
        frames_ = 0;
        windowFrame_ = streamFrame;
    }
    // The window's start by the clock as it stands now, the latest reading:
    // a young stream's clock moves by up to a millisecond as its snapshots
    // come in.
    if (hostSec > 0)
        firstHostSec_.store(hostSec - (streamFrame - windowFrame_) / rate_,
                            std::memory_order_relaxed);
    const uint32_t room = static_cast<uint32_t>(buffer_.size()) - frames_;
    const uint32_t n = std::min(count, room);
    for (uint32_t i = 0; i < n; ++i) {
        // A hole the server left still takes its place in time.
        buffer_[frames_ + i] = frames ? 0.5f * (frames[2 * i] + frames[2 * i + 1]) : 0.0f;
    }
    frames_ += n;
    progress_.store(generation << 32 | frames_, std::memory_order_release);
}

}  // namespace vt::calibration
