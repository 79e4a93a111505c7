#include "calibration/pulse/pulse_tone_player.h"

#include <algorithm>

#include "calibration/pulse/stream_priority.h"
#include "platform/pulse/pulse_loop.h"
#include "platform/pulse/pulse_streams.h"

namespace vt::calibration {

PulseTonePlayer::PulseTonePlayer(dispatch::MainQueue& main,
                                 std::shared_ptr<platform::pulse::PulseLoop> loop, double rate)
    : main_(main), loop_(std::move(loop)), rate_(rate) {}

PulseTonePlayer::~PulseTonePlayer() {
    stop();
}

bool PulseTonePlayer::open(const std::string& sinkName, std::string& error) {
    auto result = platform::pulse::openPlaybackStream(loop_, sinkName, "Vellatone test sound",
                                                      static_cast<uint32_t>(rate_),
                                                      &PulseTonePlayer::onBlock, this);
    if (!result.stream) {
        error = result.error;
        return false;
    }
    stream_ = std::move(result.stream);
    poll_ = main_.repeat(kPollSec, [this] { poll(); });
    return true;
}

void PulseTonePlayer::play(std::vector<float> samples, float gain,
                           std::function<void(PlayedSound)> completion) {
    Slot& slot = slots_[nextFree_ % kSlots];
    if (!stream_ || samples.empty() || slot.state.load(std::memory_order_acquire) != freeSlot) {
        completeLater(std::move(completion), PlayedSound{});
        return;
    }
    for (float& s : samples) s *= gain;
    slot.samples = std::move(samples);
    slot.completion = std::move(completion);
    slot.state.store(queued, std::memory_order_release);
    ++nextFree_;
}

void PulseTonePlayer::stop() {
    *alive_ = false;
    poll_.reset();
    // After this the stream's thread never looks at a slot again.
    stream_.reset();
    for (Slot& slot : slots_) {
        slot.samples = {};
        slot.completion = nullptr;
        slot.state.store(freeSlot, std::memory_order_relaxed);
    }
}

void PulseTonePlayer::completeLater(std::function<void(PlayedSound)> completion,
                                    PlayedSound sound) {
    if (!completion) return;
    std::weak_ptr<bool> alive = alive_;
    main_.post([alive, completion = std::move(completion), sound] {
        if (auto a = alive.lock(); a && *a) completion(sound);
    });
}

void PulseTonePlayer::poll() {
    const double now = main_.now();
    for (;;) {
        Slot& slot = slots_[nextDone_ % kSlots];
        if (slot.state.load(std::memory_order_acquire) != played || slot.endHostSec > now) return;
        auto completion = std::move(slot.completion);
        const PlayedSound sound{slot.startHostSec, slot.whole};
        slot.samples = {};
        slot.completion = nullptr;
        slot.state.store(freeSlot, std::memory_order_release);
        ++nextDone_;
        completeLater(std::move(completion), sound);
    }
}

bool PulseTonePlayer::onBlock(void* self, float* frames, uint32_t count, double presentSec,
                              double streamFrame) {
    static_cast<PulseTonePlayer*>(self)->fill(frames, count, presentSec, streamFrame);
    return true;
}

// The stream's thread: no allocation, no locks, no logging.
void PulseTonePlayer::fill(float* frames, uint32_t count, double presentSec, double streamFrame) {
    std::fill(frames, frames + 2 * static_cast<size_t>(count), 0.0f);
    // The stream skips ahead when it has fallen behind the sink; a sound
    // that was playing then goes on after a gap.
    const bool gap = nextFrame_ >= 0 && streamFrame != nextFrame_;
    nextFrame_ = streamFrame + count;
    uint32_t at = 0;
    while (at < count) {
        Slot& slot = slots_[playing_ % kSlots];
        if (slot.state.load(std::memory_order_acquire) != queued) return;
        if (playedFrames_ == 0)
            slot.whole = true;
        else if (gap && at == 0)
            slot.whole = false;
        const size_t n = std::min<size_t>(count - at, slot.samples.size() - playedFrames_);
        for (size_t i = 0; i < n; ++i) {
            const float v = slot.samples[playedFrames_ + i];
            frames[2 * (at + i)] = v;
            frames[2 * (at + i) + 1] = v;
        }
        at += static_cast<uint32_t>(n);
        playedFrames_ += n;
        if (playedFrames_ == slot.samples.size()) {
            // Placed by the clock as it stands at the sound's end rather than
            // its start: a young clock moves by up to a millisecond as its
            // snapshots come in, and the later reading is the truer.
            const double end = presentSec > 0 ? presentSec + at / rate_ : 0.0;
            slot.endHostSec = end;
            slot.startHostSec =
                end > 0 ? end - static_cast<double>(slot.samples.size()) / rate_ : 0;
            slot.state.store(played, std::memory_order_release);
            ++playing_;
            playedFrames_ = 0;
        }
    }
}

void PulseToneOutput::open(double sampleRate, std::function<void(TonePlayerOpenResult)> done) {
    dispatch::MainQueue& main = main_;
    opener_.run<TonePlayerOpenResult>(
        [&main, sampleRate, sinkName = sinkName_] {
            TonePlayerOpenResult result;
            auto loop = platform::pulse::PulseLoop::connect("Vellatone test sound");
            if (!loop) {
                result.detail = "no sound server";
                return result;
            }
            raiseStreamPriority(*loop);
            auto player = std::make_unique<PulseTonePlayer>(main, std::move(loop), sampleRate);
            if (!player->open(sinkName, result.detail)) return result;
            result.player = std::move(player);
            return result;
        },
        std::move(done));
}

}  // namespace vt::calibration
