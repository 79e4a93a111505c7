// The engine's records, visible to the core's own sources and to its tests.
// Fields shared between threads are std::atomic; the ones a control thread
// only stores into and the rendering thread only loads use relaxed order,
// which compiles to the same plain aligned moves.
#pragma once

#include <atomic>
#include <cstdint>

#include "core/eq_rt.h"
#include "core/ring_engine.h"

// An interpolation table: the header, then RE_PHASES + 1 rows of `taps`
// floats in the same allocation (see re_kernel_rows).
struct re_kernel {
    int32_t half;
    int32_t taps;
    double cutoff_hz;
};
static_assert(sizeof(re_kernel) == 16);

inline const float* re_kernel_rows(const re_kernel* k) {
    return reinterpret_cast<const float*>(k + 1);
}

struct re_slot {
    // Control inputs.
    std::atomic<double> delay_frames{0.0};
    std::atomic<double> base_ratio{1.0};
    std::atomic<const re_kernel*> kernel{nullptr};
    std::atomic<float> gain{0.0f};
    std::atomic<float> mix[4] = {1.0f, 0.0f, 0.0f, 1.0f};
    std::atomic<float> test_gain{0.0f};
    std::atomic<uint8_t> reset_pending{0};

    // Telemetry outputs.
    std::atomic<double> fill_err_frames{0.0};
    std::atomic<double> ppm{0.0};
    std::atomic<uint8_t> primed{0};
    std::atomic<uint64_t> starved_frames{0};
    std::atomic<double> late_frames{0.0};
    std::atomic<uint8_t> timed{0};
    std::atomic<uint32_t> peak_left{0};
    std::atomic<uint32_t> peak_right{0};

    // Render state: the rendering thread's own, except for the few fields
    // that re_engine_reset clears from a control thread (atomics below). A
    // control thread's reset of the rest only raises reset_pending; the
    // rendering thread clears them itself in re_take_reset, so they stay
    // plain.
    double read_pos = 0.0;
    double delay_seen = 0.0;
    double integral = 0.0;
    float gain_now = 0.0f;
    float mix_now[4] = {1.0f, 0.0f, 0.0f, 1.0f};
    float test_gain_now = 0.0f;
    uint8_t locked = 0;
    double fade_pos = 0.0;
    uint32_t fade_left = 0;
    uint64_t resume_at = 0;
    re_eq eq;
    re_eq master_eq;
    std::atomic<uint8_t> host_mode{0};
    double late_floor = 0.0;
    uint32_t late_votes = 0;
    double late_min = 0.0;
    std::atomic<double> last_present_sec{0.0};
    uint32_t last_frames = 0;
    double coast_budget = 0.0;
    uint8_t slewing = 0;
    uint8_t starving = 0;  // silent since it last sounded
    uint8_t waiting = 0;   // locked, silent until the audio for its time is captured
    std::atomic<uint32_t> generation_seen{0};
    std::atomic<uint32_t> snap_generation{0};
    std::atomic<uint8_t> snap_valid{0};
    double snap_frame = 0.0;
    double snap_host_sec = 0.0;
    double snap_sec_per_frame = 0.0;
    double snap_raw_host_sec = 0.0;
    uint32_t snap_block_frames = 0;
};

struct re_engine {
    std::atomic<uint64_t> frames_written{0};
    alignas(64) float ring[RE_RING_FRAMES * 2];

    // Published capture clock, behind a sequence lock.
    alignas(64) std::atomic<uint32_t> capture_seq{0};
    std::atomic<double> capture_frame{0.0};
    std::atomic<double> capture_host_sec{0.0};
    std::atomic<double> capture_sec_per_frame{1.0 / RE_RATE};
    std::atomic<uint32_t> capture_block_frames{512};
    std::atomic<uint8_t> capture_valid{0};
    std::atomic<double> capture_raw_host_sec{0.0};
    std::atomic<uint32_t> capture_generation{0};

    // Clock filter: the capture thread's own.
    uint8_t dll_valid = 0;
    double dll_frame = 0.0;
    double dll_host_sec = 0.0;
    double dll_sec_per_frame = 1.0 / RE_RATE;
    double expected_sample_time = -1.0;
    uint32_t rebase_count = 0;

    double ticks_to_sec = 1e-9;

    re_slot slots[RE_SLOTS];
};

// Internal operations, exposed for the tests.
const re_kernel* re_kernel_build(double key);
void re_take_reset(re_slot* s);
void re_render_frames(re_engine* e, re_slot* s, const re_kernel* k, float* out, uint32_t n,
                      double step, float gain_target);
// Number of tables built so far in this process.
int re_kernel_cached_count();
