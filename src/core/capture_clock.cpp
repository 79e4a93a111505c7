#include <cmath>
#include <numbers>

#include "core/capture_clock.h"

namespace {

constexpr double kNominalSecPerFrame = 1.0 / RE_RATE;
// Nominal plus or minus one part in a thousand.
constexpr double kMinSecPerFrame = 2.0812499999999998e-05;
constexpr double kMaxSecPerFrame = 2.0854166666666664e-05;
constexpr double kDllMaxGapFrames = 96000.0;
constexpr double kDllMaxErrorSec = 0.004;

double clampd(double v, double lo, double hi) {
    return v < lo ? lo : (v > hi ? hi : v);
}

}  // namespace

bool re_read_clock(const re_engine* e, int attempts, re_clock_snapshot* out) {
    for (int a = 0; a < attempts; ++a) {
        const uint32_t s1 = e->capture_seq.load(std::memory_order_acquire);
        if (s1 & 1u) continue;
        out->frame = e->capture_frame.load(std::memory_order_acquire);
        out->host_sec = e->capture_host_sec.load(std::memory_order_acquire);
        out->sec_per_frame = e->capture_sec_per_frame.load(std::memory_order_acquire);
        out->raw_host_sec = e->capture_raw_host_sec.load(std::memory_order_acquire);
        out->block_frames = e->capture_block_frames.load(std::memory_order_acquire);
        out->generation = e->capture_generation.load(std::memory_order_acquire);
        out->valid = e->capture_valid.load(std::memory_order_acquire);
        if (e->capture_seq.load(std::memory_order_relaxed) == s1) return true;
    }
    return false;
}

void render_untimed(re_engine* e, re_slot* s, float* out, uint32_t n);

void re_engine_note_capture(re_engine* e, uint64_t frame, uint32_t frames, double host_sec,
                            double sample_time) {
    if (e == nullptr || !(host_sec > 0.0) || frames == 0) return;
    const double fr = static_cast<double>(frame);
    const double delta = fr - e->dll_frame;
    const bool bad = e->dll_valid == 0 || delta <= 0.0 || delta > kDllMaxGapFrames;
    bool rebase = false;
    bool first = false;

    if (sample_time >= 0.0 && !bad && e->expected_sample_time >= 0.0 &&
        std::fabs(sample_time - e->expected_sample_time) > 0.5) {
        // The device's own counter jumped: the stream was interrupted.
        e->expected_sample_time = sample_time + frames;
        rebase = true;
    } else {
        e->expected_sample_time = sample_time >= 0.0 ? sample_time + frames : -1.0;
        if (bad) {
            if (e->dll_valid == 0) {
                first = true;
                e->dll_sec_per_frame = kNominalSecPerFrame;
            }
            rebase = true;
        } else {
            const double predicted = e->dll_host_sec + delta * e->dll_sec_per_frame;
            const double err = host_sec - predicted;
            if (std::fabs(err) > kDllMaxErrorSec) {
                rebase = true;
            } else {
                // 2 pi times the 0.5 Hz bandwidth times the elapsed time.
                const double w = delta * std::numbers::pi * e->dll_sec_per_frame;
                e->dll_host_sec = predicted + (w * std::numbers::sqrt2) * err;
                e->dll_frame = fr;
                e->dll_sec_per_frame = clampd(e->dll_sec_per_frame + err * w * w / delta,
                                              kMinSecPerFrame, kMaxSecPerFrame);
            }
        }
    }
    if (rebase) {
        if (!first) ++e->rebase_count;
        e->dll_valid = 1;
        e->dll_frame = fr;
        e->dll_host_sec = host_sec;
    }

    // Each field is stored with release order, so that a reader whose
    // acquire load sees any of them also sees the odd count before it; no
    // fences, which ThreadSanitizer cannot follow. On x86 all of these are
    // plain moves.
    const uint32_t seq = e->capture_seq.load(std::memory_order_relaxed);
    e->capture_seq.store(seq + 1, std::memory_order_relaxed);
    e->capture_frame.store(e->dll_frame, std::memory_order_release);
    e->capture_host_sec.store(e->dll_host_sec, std::memory_order_release);
    e->capture_sec_per_frame.store(e->dll_sec_per_frame, std::memory_order_release);
    e->capture_block_frames.store(frames, std::memory_order_release);
    e->capture_raw_host_sec.store(host_sec, std::memory_order_release);
    e->capture_valid.store(1, std::memory_order_release);
    e->capture_generation.store(e->rebase_count, std::memory_order_release);
    e->capture_seq.store(seq + 2, std::memory_order_release);
}

double re_engine_frame_host_sec(const re_engine* e, double frame) {
    re_clock_snapshot c;
    if (!re_read_clock(e, 8, &c) || c.valid == 0) return -1.0;
    return c.host_sec + (frame - c.frame) * c.sec_per_frame;
}
