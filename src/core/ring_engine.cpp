#include "core/ring_engine.h"

#include <time.h>

#include <algorithm>
#include <bit>
#include <new>

#include "core/interpolation.h"
#include "core/ring_engine_internal.h"

namespace {

float clampf(float v, float lo, float hi) {
    return v < lo ? lo : (v > hi ? hi : v);
}

}  // namespace

// ---------------------------------------------------------------------------
// Lifetime

re_engine* re_engine_create() {
    const re_kernel* unity = re_kernel_for(1.0);
    auto* e = new (std::nothrow) re_engine();
    if (e == nullptr) return nullptr;
    for (re_slot& s : e->slots) s.kernel.store(unity, std::memory_order_release);
    return e;
}

void re_engine_destroy(re_engine* e) {
    delete e;
}

void re_engine_reset(re_engine* e) {
    if (e == nullptr) return;
    e->frames_written.store(0, std::memory_order_release);

    const uint32_t seq = e->capture_seq.load(std::memory_order_relaxed);
    e->capture_seq.store(seq + 1, std::memory_order_relaxed);
    e->capture_valid.store(0, std::memory_order_release);
    e->capture_frame.store(0.0, std::memory_order_release);
    e->capture_host_sec.store(0.0, std::memory_order_release);
    e->capture_raw_host_sec.store(0.0, std::memory_order_release);
    e->capture_generation.store(0, std::memory_order_release);
    e->capture_seq.store(seq + 2, std::memory_order_release);

    e->dll_valid = 0;
    e->dll_frame = 0.0;
    e->dll_host_sec = 0.0;
    e->expected_sample_time = -1.0;
    e->rebase_count = 0;

    for (re_slot& s : e->slots) {
        s.reset_pending.store(1, std::memory_order_release);
        s.primed.store(0, std::memory_order_relaxed);
        s.timed.store(0, std::memory_order_relaxed);
        s.host_mode.store(0, std::memory_order_relaxed);
        s.last_present_sec.store(0.0, std::memory_order_relaxed);
        s.generation_seen.store(0, std::memory_order_relaxed);
        s.snap_generation.store(0, std::memory_order_relaxed);
        s.snap_valid.store(0, std::memory_order_relaxed);
    }
}

void re_engine_reset_reader(re_engine* e, int32_t slot) {
    re_slot& s = e->slots[slot];
    s.reset_pending.store(1, std::memory_order_release);
    s.primed.store(0, std::memory_order_relaxed);
}

void re_take_reset(re_slot* s) {
    if (s->reset_pending.exchange(0, std::memory_order_acq_rel) == 0) return;
    s->locked = 0;
    s->gain_now = 0.0f;
    s->test_gain_now = 0.0f;
    s->integral = 0.0;
    s->fade_left = 0;
    s->resume_at = 0;
    s->host_mode.store(0, std::memory_order_relaxed);
    s->late_floor = 0.0;
    s->late_votes = 0;
    s->coast_budget = 0.0;
    s->slewing = 0;
    s->waiting = 0;
    // A slot starting afresh is silent until it locks on; that is no starving.
    s->primed.store(0, std::memory_order_relaxed);
    s->starving = 0;
    s->late_frames.store(0.0, std::memory_order_relaxed);
    for (int m = 0; m < 4; ++m) s->mix_now[m] = s->mix[m].load(std::memory_order_relaxed);
    re_eq_reset_state(&s->eq);
    re_eq_reset_state(&s->master_eq);
}

// ---------------------------------------------------------------------------
// Capture side

void re_engine_write(re_engine* e, const float* interleaved, uint32_t count) {
    const uint64_t w = e->frames_written.load(std::memory_order_relaxed);
    uint64_t idx = w & RE_RING_MASK;
    uint32_t done = 0;
    while (done < count) {
        const uint32_t run =
            std::min<uint64_t>(count - done, static_cast<uint64_t>(RE_RING_FRAMES) - idx);
        std::copy_n(interleaved + 2 * static_cast<size_t>(done), 2 * static_cast<size_t>(run),
                    e->ring + 2 * idx);
        done += run;
        idx = (idx + run) & RE_RING_MASK;
    }
    e->frames_written.store(w + count, std::memory_order_release);
}

uint64_t re_engine_frames_written(const re_engine* e) {
    return e->frames_written.load(std::memory_order_acquire);
}
// ---------------------------------------------------------------------------
// Scopes

void re_engine_envelope(const re_engine* e, float* out, uint32_t points,
                        uint32_t frames_per_point) {
    if (e == nullptr || out == nullptr || points == 0) return;
    uint64_t fpp = 1;
    if (points <= RE_RING_FRAMES) {
        fpp = std::clamp<uint64_t>(frames_per_point == 0 ? 1 : frames_per_point, 1,
                                   RE_RING_FRAMES / points);
    }
    const int64_t written = static_cast<int64_t>(e->frames_written.load(std::memory_order_acquire));
    int64_t frame = written - static_cast<int64_t>(points * fpp);
    for (uint32_t p = 0; p < points; ++p) {
        float peak = 0.0f;
        for (uint64_t k = 0; k < fpp; ++k, ++frame) {
            if (frame < 0) continue;
            const uint64_t idx = static_cast<uint64_t>(frame) & RE_RING_MASK;
            peak = std::max(peak,
                            std::max(std::fabs(e->ring[2 * idx]), std::fabs(e->ring[2 * idx + 1])));
        }
        out[p] = peak;
    }
}

void re_engine_recent(const re_engine* e, float* out, uint32_t count, uint32_t frames_back) {
    if (e == nullptr || out == nullptr) return;
    count = std::min(count, RE_RING_FRAMES);
    frames_back = std::min(frames_back, RE_RING_FRAMES - count);
    const int64_t written = static_cast<int64_t>(e->frames_written.load(std::memory_order_acquire));
    int64_t frame = written - static_cast<int64_t>(frames_back) - static_cast<int64_t>(count);
    for (uint32_t k = 0; k < count; ++k, ++frame) {
        if (frame < 0) {
            out[k] = 0.0f;
            continue;
        }
        const uint64_t idx = static_cast<uint64_t>(frame) & RE_RING_MASK;
        out[k] = (e->ring[2 * idx] + e->ring[2 * idx + 1]) * 0.5f;
    }
}

// ---------------------------------------------------------------------------
// Control and telemetry

void re_engine_set_delay_ms(re_engine* e, int32_t slot, double ms) {
    e->slots[slot].delay_frames.store(ms * RE_RATE / 1000.0, std::memory_order_relaxed);
}

double re_engine_delay_ms(const re_engine* e, int32_t slot) {
    if (slot > RE_SLOTS - 1) return 0.0;
    return e->slots[slot].delay_frames.load(std::memory_order_relaxed) * 1000.0 / RE_RATE;
}

void re_engine_set_base_ratio(re_engine* e, int32_t slot, double ratio) {
    if (const re_kernel* k = re_kernel_for(ratio)) {
        e->slots[slot].kernel.store(k, std::memory_order_release);
    }
    e->slots[slot].base_ratio.store(ratio, std::memory_order_relaxed);
}

void re_engine_set_gain(re_engine* e, int32_t slot, float gain) {
    e->slots[slot].gain.store(gain, std::memory_order_relaxed);
}

void re_engine_set_mix(re_engine* e, int32_t slot, float ll, float lr, float rl, float rr) {
    const float v[4] = {ll, lr, rl, rr};
    for (int m = 0; m < 4; ++m) {
        e->slots[slot].mix[m].store(clampf(v[m], 0.0f, 2.0f), std::memory_order_relaxed);
    }
}

void re_engine_set_test_gain(re_engine* e, int32_t slot, float gain) {
    e->slots[slot].test_gain.store(clampf(gain, 0.0f, 2.0f), std::memory_order_relaxed);
}

uint8_t re_engine_primed(const re_engine* e, int32_t slot) {
    return e->slots[slot].primed.load(std::memory_order_relaxed);
}

uint8_t re_engine_timed(const re_engine* e, int32_t slot) {
    return e->slots[slot].timed.load(std::memory_order_relaxed);
}

double re_engine_fill_err_ms(const re_engine* e, int32_t slot) {
    return e->slots[slot].fill_err_frames.load(std::memory_order_relaxed) * 1000.0 / RE_RATE;
}

double re_engine_late_ms(const re_engine* e, int32_t slot) {
    return e->slots[slot].late_frames.load(std::memory_order_relaxed) * 1000.0 / RE_RATE;
}

double re_engine_ppm(const re_engine* e, int32_t slot) {
    return e->slots[slot].ppm.load(std::memory_order_relaxed);
}

uint64_t re_engine_starved_frames(const re_engine* e, int32_t slot) {
    return e->slots[slot].starved_frames.load(std::memory_order_relaxed);
}

uint8_t re_engine_starving(const re_engine* e, int32_t slot) {
    return e->slots[slot].starving;
}

void re_engine_take_peak(re_engine* e, int32_t slot, float* left, float* right) {
    re_slot& s = e->slots[slot];
    *left = std::bit_cast<float>(s.peak_left.exchange(0, std::memory_order_relaxed));
    *right = std::bit_cast<float>(s.peak_right.exchange(0, std::memory_order_relaxed));
}

uint64_t re_host_now_ticks() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

double re_engine_host_ticks_to_sec(const re_engine* e, uint64_t ticks) {
    return e->ticks_to_sec * static_cast<double>(ticks);
}

double re_engine_host_now_sec(const re_engine* e) {
    return re_engine_host_ticks_to_sec(e, re_host_now_ticks());
}

// ---------------------------------------------------------------------------
// Equalisers

void re_engine_set_eq_band(re_engine* e, int32_t slot, int32_t band, uint32_t kind,
                           double frequency, double gain_db, double q) {
    if (slot < 0 || slot >= RE_SLOTS) return;
    re_eq_publish_band(&e->slots[slot].eq, band, kind, frequency, gain_db, q);
}

void re_engine_set_eq_enabled(re_engine* e, int32_t slot, bool enabled) {
    if (slot < 0 || slot >= RE_SLOTS) return;
    re_eq_publish_enabled(&e->slots[slot].eq, enabled);
}

void re_engine_set_eq_preamp_db(re_engine* e, int32_t slot, double db) {
    if (slot < 0 || slot >= RE_SLOTS) return;
    re_eq_publish_preamp_db(&e->slots[slot].eq, db);
}

int re_engine_take_eq_clip(re_engine* e, int32_t slot) {
    if (slot < 0 || slot >= RE_SLOTS) return 0;
    return re_eq_take_clip(&e->slots[slot].eq);
}

void re_engine_set_master_eq_band(re_engine* e, int32_t band, uint32_t kind, double frequency,
                                  double gain_db, double q) {
    for (re_slot& s : e->slots) re_eq_publish_band(&s.master_eq, band, kind, frequency, gain_db, q);
}

void re_engine_set_master_eq_enabled(re_engine* e, bool enabled) {
    for (re_slot& s : e->slots) re_eq_publish_enabled(&s.master_eq, enabled);
}

void re_engine_set_master_eq_preamp_db(re_engine* e, double db) {
    for (re_slot& s : e->slots) re_eq_publish_preamp_db(&s.master_eq, db);
}

int re_engine_take_master_eq_clip(re_engine* e) {
    int any = 0;
    for (re_slot& s : e->slots) any |= re_eq_take_clip(&s.master_eq);
    return any;
}
