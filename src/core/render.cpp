#include <algorithm>
#include <bit>
#include <cmath>
#include <numbers>

#include "core/capture_clock.h"
#include "core/interpolation.h"
#include "core/rate_loop.h"

namespace {

constexpr double kGlideFrames = 480.0;
constexpr double kCoastFrames = 48000.0;
constexpr double kSlewWindowFrames = 4096.0;
// A slot that waited for its audio and is then asked for a time this far from
// where it stood was not asked again for the same block: what was heard
// between was silence, so it starts afresh instead of gliding over the gap.
constexpr double kResumeSeamFrames = 8.0;
constexpr int kNoisePeriod = 24000;
constexpr int kNoiseBurst = 14400;
constexpr int kNoiseEdge = 480;

float ramp_toward(float now, float target) {
    if (now < target) {
        now += RE_RAMP_STEP;
        return now > target ? target : now;
    }
    if (now > target) {
        now -= RE_RAMP_STEP;
        return now < target ? target : now;
    }
    return now;
}

// Test noise amplitude within the 500 ms burst cycle of ring frame i.
float burst_amplitude(int64_t i) {
    int64_t phase = i % kNoisePeriod;
    if (phase < 0) phase += kNoisePeriod;
    if (phase >= kNoiseBurst) return 0.0f;
    int64_t edge = kNoiseEdge;
    if (phase < kNoiseEdge) {
        edge = phase;
    } else if (phase >= kNoiseBurst - kNoiseEdge) {
        edge = kNoiseBurst - phase;
    }
    if (edge == kNoiseEdge) return 0.12f;
    return static_cast<float>(
        0.12 * (0.5 - 0.5 * std::cos(static_cast<double>(edge) * std::numbers::pi / kNoiseEdge)));
}

// A hash of the ring frame, so every output reading that frame makes the
// same noise sample: in [-1, 1).
float frame_noise(int64_t i) {
    uint64_t z = static_cast<uint64_t>(i) + 0x9E3779B97F4A7C15ull;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return static_cast<float>(z >> 40) * 0x1p-23f - 1.0f;
}

void raise_peak(std::atomic<uint32_t>& peak, float value) {
    uint32_t cur = peak.load(std::memory_order_relaxed);
    while (value > std::bit_cast<float>(cur)) {
        if (peak.compare_exchange_weak(cur, std::bit_cast<uint32_t>(value),
                                       std::memory_order_relaxed)) {
            break;
        }
    }
}

void silence(re_slot* s, float* out, uint32_t n) {
    std::fill(out, out + 2 * static_cast<size_t>(n), 0.0f);
    if (s->primed.exchange(0, std::memory_order_relaxed) != 0 || s->starving) {
        s->starving = 1;
        s->starved_frames.fetch_add(n, std::memory_order_relaxed);
    }
}

double sample_rate_for(double base_ratio) {
    return base_ratio > 0.0 ? RE_RATE / base_ratio : RE_RATE;
}

void update_eqs(re_slot* s) {
    const double rate = sample_rate_for(s->base_ratio.load(std::memory_order_relaxed));
    re_eq_update(&s->eq, rate);
    re_eq_update(&s->master_eq, rate);
}

void render_untimed(re_engine* e, re_slot* s, float* out, uint32_t n);

// A delay, ratio or clock that is not a number (or absurdly large) must not
// reach the frame index arithmetic; such a block is silent and unlocked.
bool position_usable(re_slot* s, double step, float* out, uint32_t n) {
    if (std::fabs(s->read_pos) < 1e18 && std::fabs(step) < 1e6) return true;
    s->locked = 0;
    s->fade_left = 0;
    silence(s, out, n);
    return false;
}

// The timed path handing a block to the fill-based one, after it has
// already taken the reset and updated the equalisers for this block.
void fall_back_untimed(re_engine* e, re_slot* s, float* out, uint32_t n) {
    s->host_mode.store(0, std::memory_order_relaxed);
    s->timed.store(0, std::memory_order_relaxed);
    render_untimed(e, s, out, n);
}

}  // namespace

// ---------------------------------------------------------------------------
// Rendering

void re_render_frames(re_engine* e, re_slot* s, const re_kernel* k, float* out, uint32_t n,
                      double step, float gain_target) {
    const float* ring = e->ring;
    float mix_target[4];
    for (int m = 0; m < 4; ++m) mix_target[m] = s->mix[m].load(std::memory_order_relaxed);
    const float test_target = s->test_gain.load(std::memory_order_relaxed);
    const bool noise = std::max(s->test_gain_now, test_target) > 0.0f;

    double pos = s->read_pos;
    double fade_pos = s->fade_pos;
    uint32_t fade_left = s->fade_left;
    float gain_now = s->gain_now;
    float mix_now[4] = {s->mix_now[0], s->mix_now[1], s->mix_now[2], s->mix_now[3]};
    float test_now = s->test_gain_now;
    bool clip_eq = false;
    bool clip_master = false;
    float peak_l = 0.0f;
    float peak_r = 0.0f;

    for (uint32_t f = 0; f < n; ++f) {
        const int64_t i = static_cast<int64_t>(std::floor(pos));
        re_stereo v;
        if (fade_left != 0) {
            const re_stereo a = re_sample_at(ring, k, fade_pos);
            const re_stereo b = re_sample_at(ring, k, pos);
            const float w =
                1.0f - static_cast<float>(fade_left) / static_cast<float>(RE_FADE_FRAMES);
            v = {a.l + w * (b.l - a.l), a.r + w * (b.r - a.r)};
            fade_pos += step;
            --fade_left;
        } else {
            v = re_sample_at(ring, k, pos);
        }
        pos += step;

        re_eq_apply(&s->eq, &v.l, &v.r);
        re_eq_apply(&s->master_eq, &v.l, &v.r);

        gain_now = ramp_toward(gain_now, gain_target);
        for (int m = 0; m < 4; ++m) mix_now[m] = ramp_toward(mix_now[m], mix_target[m]);
        float l = gain_now * (mix_now[0] * v.l + mix_now[1] * v.r);
        float r = gain_now * (mix_now[2] * v.l + mix_now[3] * v.r);

        if (noise) {
            test_now = ramp_toward(test_now, test_target);
            const float a = burst_amplitude(i);
            if (a > 0.0f) {
                const float add = gain_now * test_now * a * frame_noise(i);
                l += add;
                r += add;
            }
        }

        const float al = std::fabs(l);
        const float ar = std::fabs(r);
        if (al > 1.0f || ar > 1.0f) {
            clip_eq |= s->eq.active != 0;
            clip_master |= s->master_eq.active != 0;
        }
        peak_l = std::max(peak_l, al);
        peak_r = std::max(peak_r, ar);
        out[2 * f] = l;
        out[2 * f + 1] = r;
    }

    s->read_pos = pos;
    s->fade_pos = fade_pos;
    s->fade_left = fade_left;
    s->gain_now = gain_now;
    for (int m = 0; m < 4; ++m) s->mix_now[m] = mix_now[m];
    s->test_gain_now = test_now;
    if (clip_eq) re_eq_note_clip(&s->eq);
    if (clip_master) re_eq_note_clip(&s->master_eq);
    raise_peak(s->peak_left, peak_l);
    raise_peak(s->peak_right, peak_r);
}

namespace {

// Fill-based reading: keep the ring's fill at the slot's delay plus the base
// lag, by speed alone for small errors and by a crossfade for large ones.
void render_untimed(re_engine* e, re_slot* s, float* out, uint32_t n) {
    const uint64_t written_u = e->frames_written.load(std::memory_order_acquire);
    const double written = static_cast<double>(written_u);
    const double delay = s->delay_frames.load(std::memory_order_relaxed);
    const double ratio = s->base_ratio.load(std::memory_order_relaxed);
    const float gain_target = s->gain.load(std::memory_order_relaxed);
    const double nd = static_cast<double>(n);
    const double target = std::max(delay + RE_BASE_LAG, 2.5 * nd);

    if (s->locked && delay != s->delay_seen) {
        const double lag = written - s->read_pos;
        if (std::fabs(delay - (lag - RE_BASE_LAG)) <= kGlideFrames) {
            s->delay_seen = delay;
        } else if (target <= written) {
            s->fade_pos = s->read_pos;
            s->read_pos = written - target;
            s->fade_left = RE_FADE_FRAMES;
            s->integral = 0.0;
            s->delay_seen = delay;
        } else {
            // Not enough history yet; the gain is left where it is on purpose.
            s->locked = 0;
            s->fade_left = 0;
            s->integral = 0.0;
            s->delay_seen = delay;
        }
    }

    if (!s->locked) {
        if (target + nd > written || written_u < s->resume_at) {
            silence(s, out, n);
            return;
        }
        s->read_pos = written - target;
        s->locked = 1;
        s->delay_seen = delay;
        s->integral = 0.0;
    }

    const re_kernel* k = s->kernel.load(std::memory_order_acquire);
    if (k == nullptr) {
        silence(s, out, n);
        return;
    }
    const double guard = k->half + 2;
    double lag = written - s->read_pos;
    if (lag < std::max(nd * ratio * 1.005 + guard, 2.0 * nd)) {
        s->locked = 0;
        s->gain_now = 0.0f;
        s->fade_left = 0;
        s->resume_at = written_u + 1;
        silence(s, out, n);
        return;
    }
    if (lag > static_cast<double>(RE_RING_FRAMES) - 2.0 * nd - guard) {
        const double seen_target = std::max(s->delay_seen + RE_BASE_LAG, 2.5 * nd);
        s->read_pos = written - seen_target;
        s->integral = 0.0;
        s->fade_left = 0;
        lag = written - s->read_pos;
    }

    const double err = lag - target;
    const double c = re_rate_correction(&s->integral, err, nd * ratio / RE_RATE, RE_FILL_GAINS);
    if (!position_usable(s, (1.0 + c) * ratio, out, n)) return;
    s->fill_err_frames.store(err, std::memory_order_relaxed);
    s->ppm.store(c * 1e6, std::memory_order_relaxed);
    re_render_frames(e, s, k, out, n, (1.0 + c) * ratio, gain_target);
    s->primed.store(1, std::memory_order_relaxed);
    s->starving = 0;
}

}  // namespace

void re_engine_render(re_engine* e, int32_t slot, float* out, uint32_t frames) {
    re_slot* s = &e->slots[slot];
    re_take_reset(s);
    if (s->host_mode.load(std::memory_order_relaxed)) {
        s->host_mode.store(0, std::memory_order_relaxed);
        s->timed.store(0, std::memory_order_relaxed);
    }
    update_eqs(s);
    render_untimed(e, s, out, frames);
}

void re_engine_render_at(re_engine* e, int32_t slot, float* out, uint32_t frames,
                         double present_sec) {
    re_engine_render_at_host(e, slot, out, frames, present_sec, re_engine_host_now_sec(e));
}

// Host-timed reading: ring frame F is heard at the host time of F plus the
// slot's delay, the base lag and any lateness the device forced on us.
void re_engine_render_at_host(re_engine* e, int32_t slot, float* out, uint32_t frames,
                              double present_sec, double now_sec) {
    re_slot* s = &e->slots[slot];
    re_take_reset(s);
    update_eqs(s);

    const double ratio = s->base_ratio.load(std::memory_order_relaxed);
    const float gain_target = s->gain.load(std::memory_order_relaxed);
    const double nd = static_cast<double>(frames);
    const bool host_mode = s->host_mode.load(std::memory_order_relaxed) != 0;
    const double last_present = s->last_present_sec.load(std::memory_order_relaxed);

    if (present_sec > 0.0) {
        s->coast_budget = kCoastFrames;
    } else if (host_mode && s->coast_budget > 0.0 && last_present > 0.0) {
        // The device stopped giving time stamps: carry on from the last one.
        present_sec = last_present + ratio * s->last_frames / RE_RATE;
        s->coast_budget -= nd * ratio;
    }
    if (!(present_sec > 0.0)) {
        s->last_present_sec.store(0.0, std::memory_order_relaxed);
        fall_back_untimed(e, s, out, frames);
        return;
    }

    re_clock_snapshot c;
    if (re_read_clock(e, 4, &c) && c.valid) {
        s->snap_generation.store(c.generation, std::memory_order_relaxed);
        s->snap_valid.store(1, std::memory_order_relaxed);
        s->snap_frame = c.frame;
        s->snap_host_sec = c.host_sec;
        s->snap_sec_per_frame = c.sec_per_frame;
        s->snap_raw_host_sec = c.raw_host_sec;
        s->snap_block_frames = c.block_frames;
    } else if (!s->snap_valid.load(std::memory_order_relaxed)) {
        fall_back_untimed(e, s, out, frames);
        return;
    }

    s->last_present_sec.store(present_sec, std::memory_order_relaxed);
    s->last_frames = frames;
    const uint32_t snap_generation = s->snap_generation.load(std::memory_order_relaxed);
    if (!host_mode) {
        s->host_mode.store(1, std::memory_order_relaxed);
        s->timed.store(1, std::memory_order_relaxed);
        s->generation_seen.store(snap_generation, std::memory_order_relaxed);
    }

    const uint64_t written_u = e->frames_written.load(std::memory_order_acquire);
    const double written = static_cast<double>(written_u);
    const re_kernel* k = s->kernel.load(std::memory_order_acquire);
    if (k == nullptr) {
        silence(s, out, frames);
        return;
    }
    const double need = nd * ratio * 1.005 + k->half + 2;
    const double oldest = std::max(written - RE_RING_FRAMES + k->half + 2, 1.0);

    // Lateness ratchet: a device that asks for audio further ahead than the
    // base lag covers makes the slot play later, in whole milliseconds.
    const double candidate =
        (present_sec - now_sec) * RE_RATE + need + s->snap_block_frames + 256.0 - RE_BASE_LAG;
    if (candidate <= s->late_floor) {
        s->late_votes = 0;
    } else if (s->late_votes == 0) {
        s->late_min = candidate;
        s->late_votes = 1;
    } else {
        s->late_min = std::min(s->late_min, candidate);
        if (++s->late_votes >= 8) {
            s->late_floor = std::ceil(s->late_min / 48.0) * 48.0;
            s->late_frames.store(s->late_floor, std::memory_order_relaxed);
            s->late_votes = 0;
        }
    }

    const double delay = s->delay_frames.load(std::memory_order_relaxed);
    const double want =
        s->snap_frame +
        ((present_sec - (delay + RE_BASE_LAG + s->late_floor) / RE_RATE) - s->snap_host_sec) /
            s->snap_sec_per_frame;
    const bool want_ok = want >= oldest && want + need <= written;

    if (snap_generation != s->generation_seen.load(std::memory_order_relaxed)) {
        s->generation_seen.store(snap_generation, std::memory_order_relaxed);
        if (s->locked && std::fabs(want - s->read_pos) <= kSlewWindowFrames) s->slewing = 1;
    }

    if (!s->locked) {
        if (!(want_ok && written_u >= s->resume_at)) {
            silence(s, out, frames);
            return;
        }
        s->read_pos = want;
        s->locked = 1;
        s->delay_seen = delay;
        s->integral = 0.0;
        s->fade_left = 0;
        s->slewing = 0;
    }

    double err = want - s->read_pos;
    if (s->waiting && want_ok) {
        s->waiting = 0;
        if (std::fabs(err) > kResumeSeamFrames) {
            s->read_pos = want;
            s->gain_now = 0.0f;
            s->fade_left = 0;
            s->slewing = 0;
            err = 0.0;
        }
    }
    if (s->slewing && std::fabs(err) > kSlewWindowFrames) s->slewing = 0;
    const bool small = std::fabs(err) <= kGlideFrames || s->slewing;
    auto in_range = [&](double p) { return p >= oldest && p + need <= written; };
    const bool pos_ok = in_range(s->read_pos);

    if (!want_ok && !(pos_ok && small)) {
        if (want >= oldest) {
            // Not captured yet (a capture that comes late): silence, with
            // the slot left as it stands. A stream that does not play this
            // silence asks for the same time again once the audio is here,
            // and it continues without a seam.
            s->waiting = 1;
            silence(s, out, frames);
            return;
        }
        s->locked = 0;
        s->gain_now = 0.0f;
        s->fade_left = 0;
        s->integral = 0.0;
        s->slewing = 0;
        s->resume_at = written_u + 1;
        silence(s, out, frames);
        return;
    }

    if (!pos_ok) {
        // Hard jump: the old position has no audio; the gain ramps up again.
        s->read_pos = want;
        s->gain_now = 0.0f;
        s->fade_left = 0;
        s->slewing = 0;
        err = 0.0;
        s->delay_seen = delay;
        s->integral = 0.0;
    } else {
        if (!small) {
            s->fade_pos = s->read_pos;
            s->read_pos = want;
            s->fade_left = RE_FADE_FRAMES;
            s->integral = 0.0;
            err = 0.0;
        }
        if (s->fade_left != 0 && !in_range(s->fade_pos)) s->fade_left = 0;
        s->delay_seen = delay;
        if (s->slewing && std::fabs(err) <= RE_FINE_BAND_FRAMES) s->slewing = 0;
    }
    const double c_speed =
        re_rate_correction(&s->integral, err, nd * ratio / RE_RATE, RE_TIMED_GAINS);

    if (!position_usable(s, (1.0 + c_speed) * ratio, out, frames)) return;
    s->fill_err_frames.store(err, std::memory_order_relaxed);
    s->ppm.store(c_speed * 1e6, std::memory_order_relaxed);
    re_render_frames(e, s, k, out, frames, (1.0 + c_speed) * ratio, gain_target);
    s->primed.store(1, std::memory_order_relaxed);
    s->starving = 0;
}
