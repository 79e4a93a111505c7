#include "core/ring_engine.h"

#include <time.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <numbers>

#include "core/ring_engine_internal.h"

namespace {

constexpr double kNominalSecPerFrame = 1.0 / RE_RATE;
constexpr double kMinSecPerFrame = 2.0812499999999998e-05;
constexpr double kMaxSecPerFrame = 2.0854166666666664e-05;
constexpr double kDllMaxGapFrames = 96000.0;
constexpr double kDllMaxErrorSec = 0.004;
constexpr double kUnityKey = 1.000001;
constexpr double kMaxKernelKey = 64.0;
constexpr double kGlideFrames = 480.0;
constexpr double kCoastFrames = 48000.0;
constexpr double kSlewWindowFrames = 4096.0;
constexpr int kNoisePeriod = 24000;
constexpr int kNoiseBurst = 14400;
constexpr int kNoiseEdge = 480;

// Tables live for the whole process so a rendering thread may hold one
// without a lock; only re_kernel_for takes the mutex, on a control thread.
std::mutex re_kernels_lock;
const re_kernel* re_kernels[RE_MAX_KERNELS];
double re_kernel_bases[RE_MAX_KERNELS];
int re_kernel_count = 0;

// Modified Bessel function of the first kind, order 0, from (x/2)^2.
double bessel_i0_from_quarter_square(double q) {
    double sum = 1.0;
    double term = 1.0;
    for (int k = 1; k <= 63; ++k) {
        term *= q / (static_cast<double>(k) * k);
        sum += term;
        if (term < sum * 1e-17) break;
    }
    return sum;
}

double clampd(double v, double lo, double hi) {
    return v < lo ? lo : (v > hi ? hi : v);
}
float clampf(float v, float lo, float hi) {
    return v < lo ? lo : (v > hi ? hi : v);
}

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

struct stereo {
    float l;
    float r;
};

// Work area for one interpolated sample, sized for the tables a real device
// needs; longer tables are processed in chunks of this many taps.
constexpr int kChunkTaps = 256;

// Accumulates sum of coef[k] * (x[k] - b[k & 1]) over `floats` interleaved
// values into eight independent lanes: the compiler turns this into vector
// multiply-adds without reassociating anything.
inline void dot_lanes(const float* __restrict coef, const float* __restrict x, int floats, float bl,
                      float br, float* __restrict acc) {
    const float b[8] = {bl, br, bl, br, bl, br, bl, br};
    int k = 0;
    for (; k + 8 <= floats; k += 8) {
        for (int m = 0; m < 8; ++m) acc[m] += coef[k + m] * (x[k + m] - b[m]);
    }
    for (int m = 0; k + m < floats; ++m) acc[m] += coef[k + m] * (x[k + m] - b[m]);
}

// One stereo sample of the ring at a fractional frame position.
inline stereo sample_at(const float* ring, const re_kernel* kern, double pos) {
    const double fl = std::floor(pos);
    const int64_t i = static_cast<int64_t>(fl);
    const double f = (pos - fl) * RE_PHASES;
    int row = static_cast<int>(f);
    float frac = static_cast<float>(f - row);
    if (row > RE_PHASES - 1) {
        row = RE_PHASES - 1;
        frac = 1.0f;
    }
    const int half = kern->half;
    const int taps = kern->taps;
    const float* c0 = re_kernel_rows(kern) + static_cast<size_t>(row) * taps;
    const float* c1 = c0 + taps;

    const uint64_t centre = static_cast<uint64_t>(i) & RE_RING_MASK;
    const float bl = ring[2 * centre];
    const float br = ring[2 * centre + 1];
    const uint64_t start = static_cast<uint64_t>(i - half + 1) & RE_RING_MASK;
    const bool wraps = start + static_cast<uint64_t>(taps) > RE_RING_FRAMES;

    alignas(16) float coef[2 * kChunkTaps];
    alignas(16) float window[2 * kChunkTaps];
    alignas(16) float acc[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    for (int base = 0; base < taps; base += kChunkTaps) {
        const int count = std::min(kChunkTaps, taps - base);
        const float* a = c0 + base;
        const float* b = c1 + base;
        for (int j = 0; j < count; ++j) {
            const float v = a[j] + frac * (b[j] - a[j]);
            coef[2 * j] = v;
            coef[2 * j + 1] = v;
        }
        const float* x;
        if (!wraps) {
            x = ring + 2 * (start + static_cast<uint64_t>(base));
        } else {
            for (int j = 0; j < count; ++j) {
                const uint64_t idx = (start + static_cast<uint64_t>(base + j)) & RE_RING_MASK;
                window[2 * j] = ring[2 * idx];
                window[2 * j + 1] = ring[2 * idx + 1];
            }
            x = window;
        }
        dot_lanes(coef, x, 2 * count, bl, br, acc);
    }
    return {bl + ((acc[0] + acc[2]) + (acc[4] + acc[6])),
            br + ((acc[1] + acc[3]) + (acc[5] + acc[7]))};
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
    s->primed.store(0, std::memory_order_relaxed);
}

double sample_rate_for(double base_ratio) {
    return base_ratio > 0.0 ? RE_RATE / base_ratio : RE_RATE;
}

void update_eqs(re_slot* s) {
    const double rate = sample_rate_for(s->base_ratio.load(std::memory_order_relaxed));
    re_eq_update(&s->eq, rate);
    re_eq_update(&s->master_eq, rate);
}

struct clock_snapshot {
    double frame;
    double host_sec;
    double sec_per_frame;
    double raw_host_sec;
    uint32_t block_frames;
    uint32_t generation;
    uint8_t valid;
};

bool read_clock(const re_engine* e, int attempts, clock_snapshot* out) {
    for (int a = 0; a < attempts; ++a) {
        const uint32_t s1 = e->capture_seq.load(std::memory_order_acquire);
        if (s1 & 1u) continue;
        out->frame = e->capture_frame.load(std::memory_order_relaxed);
        out->host_sec = e->capture_host_sec.load(std::memory_order_relaxed);
        out->sec_per_frame = e->capture_sec_per_frame.load(std::memory_order_relaxed);
        out->raw_host_sec = e->capture_raw_host_sec.load(std::memory_order_relaxed);
        out->block_frames = e->capture_block_frames.load(std::memory_order_relaxed);
        out->generation = e->capture_generation.load(std::memory_order_relaxed);
        out->valid = e->capture_valid.load(std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_acquire);
        if (e->capture_seq.load(std::memory_order_relaxed) == s1) return true;
    }
    return false;
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
// Interpolation tables

const re_kernel* re_kernel_build(double key) {
    // Nothing plays below 750 Hz; a key past that is a bad value, not a device.
    if (!(key <= kMaxKernelKey)) return nullptr;
    const bool unity = key <= kUnityKey;
    const int half = unity ? 32 : static_cast<int>(std::ceil(key * 64.0));
    const int taps = 2 * half;
    const size_t bytes = static_cast<size_t>(taps) * 2052 + 16;
    void* mem = std::malloc(bytes);
    if (mem == nullptr) return nullptr;
    auto* k = new (mem) re_kernel{half, taps, 0.0};
    double cutoff = RE_RATE * 0.5;
    if (!unity) {
        // Pull the pass band down by half the Kaiser transition width, so that
        // reading faster than the ring rate still respects the output Nyquist.
        cutoff = (RE_RATE / key) * 0.5 +
                 (-82.0 / (std::ceil(key * 64.0) * 28.71415685381071)) * RE_RATE * 0.5;
    }
    k->cutoff_hz = cutoff;

    const double i0_beta = bessel_i0_from_quarter_square(20.25);
    const double norm_cut = cutoff / RE_RATE;
    std::unique_ptr<double[]> row(new (std::nothrow) double[taps]);
    if (!row) {
        std::free(mem);
        return nullptr;
    }
    float* rows = reinterpret_cast<float*>(k + 1);
    for (int p = 0; p <= RE_PHASES; ++p) {
        double sum = 0.0;
        for (int j = 0; j < taps; ++j) {
            const double t = static_cast<double>(j - half + 1) -
                             static_cast<double>(p) / static_cast<double>(RE_PHASES);
            const double r = t / half;
            double w = 0.0;
            if (std::fabs(r) < 1.0) {
                const double arg = 9.0 * std::sqrt(1.0 - r * r);
                w = bessel_i0_from_quarter_square(arg * arg / 4.0) / i0_beta;
            }
            const double x = norm_cut * 2.0 * std::numbers::pi * t;
            const double sinc = std::fabs(x) < 1e-12 ? 1.0 : std::sin(x) / x;
            row[j] = w * (2.0 * norm_cut) * sinc;
            sum += row[j];
        }
        // Every row sums to exactly one, so reading relative to the centre
        // frame equals the plain convolution.
        for (int j = 0; j < taps; ++j) {
            rows[static_cast<size_t>(p) * taps + j] = static_cast<float>(row[j] / sum);
        }
    }
    return k;
}

const re_kernel* re_kernel_for(double ratio) {
    const double key = ratio > kUnityKey ? ratio : 1.0;
    std::lock_guard<std::mutex> lock(re_kernels_lock);
    for (int i = 0; i < re_kernel_count; ++i) {
        if (std::fabs(re_kernel_bases[i] - key) < 1e-9) return re_kernels[i];
    }
    if (re_kernel_count < RE_MAX_KERNELS) {
        if (const re_kernel* k = re_kernel_build(key)) {
            re_kernels[re_kernel_count] = k;
            re_kernel_bases[re_kernel_count] = key;
            ++re_kernel_count;
            return k;
        }
    }
    const re_kernel* best = nullptr;
    double best_dist = 0.0;
    for (int i = 0; i < re_kernel_count; ++i) {
        const double d = std::fabs(re_kernel_bases[i] - key);
        if (best == nullptr || d < best_dist) {
            best = re_kernels[i];
            best_dist = d;
        }
    }
    return best;
}

int re_kernel_cached_count() {
    std::lock_guard<std::mutex> lock(re_kernels_lock);
    return re_kernel_count;
}

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
    e->capture_seq.store(seq + 1, std::memory_order_release);
    std::atomic_thread_fence(std::memory_order_release);
    e->capture_valid.store(0, std::memory_order_relaxed);
    e->capture_frame.store(0.0, std::memory_order_relaxed);
    e->capture_host_sec.store(0.0, std::memory_order_relaxed);
    e->capture_raw_host_sec.store(0.0, std::memory_order_relaxed);
    e->capture_generation.store(0, std::memory_order_relaxed);
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

    const uint32_t seq = e->capture_seq.load(std::memory_order_relaxed);
    e->capture_seq.store(seq + 1, std::memory_order_release);
    std::atomic_thread_fence(std::memory_order_release);
    e->capture_frame.store(e->dll_frame, std::memory_order_relaxed);
    e->capture_host_sec.store(e->dll_host_sec, std::memory_order_relaxed);
    e->capture_sec_per_frame.store(e->dll_sec_per_frame, std::memory_order_relaxed);
    e->capture_block_frames.store(frames, std::memory_order_relaxed);
    e->capture_raw_host_sec.store(host_sec, std::memory_order_relaxed);
    e->capture_valid.store(1, std::memory_order_relaxed);
    e->capture_generation.store(e->rebase_count, std::memory_order_relaxed);
    e->capture_seq.store(seq + 2, std::memory_order_release);
}

double re_engine_frame_host_sec(const re_engine* e, double frame) {
    clock_snapshot c;
    if (!read_clock(e, 8, &c) || c.valid == 0) return -1.0;
    return c.host_sec + (frame - c.frame) * c.sec_per_frame;
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
        stereo v;
        if (fade_left != 0) {
            const stereo a = sample_at(ring, k, fade_pos);
            const stereo b = sample_at(ring, k, pos);
            const float w =
                1.0f - static_cast<float>(fade_left) / static_cast<float>(RE_FADE_FRAMES);
            v = {a.l + w * (b.l - a.l), a.r + w * (b.r - a.r)};
            fade_pos += step;
            --fade_left;
        } else {
            v = sample_at(ring, k, pos);
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
    const double limit = std::fabs(err) > 96.0 ? 0.005 : 0.0002;
    const double u = s->integral + err * 2e-6;
    const double c = clampd(u, -limit, limit);
    if (c == u) s->integral += err * 1e-9;
    if (!position_usable(s, (1.0 + c) * ratio, out, n)) return;
    s->fill_err_frames.store(err, std::memory_order_relaxed);
    s->ppm.store(c * 1e6, std::memory_order_relaxed);
    re_render_frames(e, s, k, out, n, (1.0 + c) * ratio, gain_target);
    s->primed.store(1, std::memory_order_relaxed);
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

    clock_snapshot c;
    if (read_clock(e, 4, &c) && c.valid) {
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
    if (s->slewing && std::fabs(err) > kSlewWindowFrames) s->slewing = 0;
    const bool small = std::fabs(err) <= kGlideFrames || s->slewing;
    auto in_range = [&](double p) { return p >= oldest && p + need <= written; };
    const bool pos_ok = in_range(s->read_pos);

    if (!want_ok && !(pos_ok && small)) {
        s->locked = 0;
        s->gain_now = 0.0f;
        s->fade_left = 0;
        s->integral = 0.0;
        s->slewing = 0;
        s->resume_at = written_u + 1;
        silence(s, out, frames);
        return;
    }

    double c_speed = 0.0;
    bool fine = true;
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
        if (s->slewing && std::fabs(err) <= 96.0) s->slewing = 0;
        if (std::fabs(err) > 96.0) {
            c_speed = clampd(err * 2e-5, -0.005, 0.005);
            fine = false;
        }
    }
    if (fine) {
        const double u = s->integral + err * 2e-6;
        c_speed = clampd(u, -0.0002, 0.0002);
        if (c_speed == u) s->integral += err * 1e-9 * nd / 512.0;
    }

    if (!position_usable(s, (1.0 + c_speed) * ratio, out, frames)) return;
    s->fill_err_frames.store(err, std::memory_order_relaxed);
    s->ppm.store(c_speed * 1e6, std::memory_order_relaxed);
    re_render_frames(e, s, k, out, frames, (1.0 + c_speed) * ratio, gain_target);
    s->primed.store(1, std::memory_order_relaxed);
}
