#include "core/eq_rt.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

namespace {

constexpr double kDefaultRate = 48000.0;
constexpr double kDenormalFloor = 1e-25;

bool is_identity(const re_eq_coeffs& c) {
    return c.b0 == 1.0 && c.b1 == 0.0 && c.b2 == 0.0 && c.a1 == 0.0 && c.a2 == 0.0;
}

bool same(const re_eq_coeffs& x, const re_eq_coeffs& y) {
    return x.b0 == y.b0 && x.b1 == y.b1 && x.b2 == y.b2 && x.a1 == y.a1 && x.a2 == y.a2;
}

// Position within a glide: 0 at its first sample, approaching 1 at its last.
double ramp_t(uint32_t ramp) {
    return 1.0 - static_cast<double>(ramp) / RE_EQ_RAMP;
}

re_eq_coeffs blend(const re_eq_coeffs& a, const re_eq_coeffs& b, double t) {
    re_eq_coeffs c;
    c.b0 = a.b0 + (b.b0 - a.b0) * t;
    c.b1 = a.b1 + (b.b1 - a.b1) * t;
    c.b2 = a.b2 + (b.b2 - a.b2) * t;
    c.a1 = a.a1 + (b.a1 - a.a1) * t;
    c.a2 = a.a2 + (b.a2 - a.a2) * t;
    return c;
}

re_eq_coeffs in_use(const re_eq_live_band& b) {
    return b.ramp == 0 ? b.target : blend(b.start, b.target, ramp_t(b.ramp));
}

double sanitise(double v, double fallback) {
    return std::isnan(v) ? fallback : v;
}

re_eq_coeffs design(uint32_t kind, double sampleRate, double frequency, double gainDb, double q) {
    re_eq_coeffs out;
    const double g = sanitise(gainDb, 0.0);
    if (kind == RE_EQ_OFF || kind > RE_EQ_BAND_PASS) return out;
    // Exactly the identity, not a filter that happens to cancel, so that the
    // band can go inactive and cost nothing.
    if (kind <= RE_EQ_HIGH_SHELF && g == 0.0) return out;

    const double sr = sampleRate > 0.0 && std::isfinite(sampleRate) ? sampleRate : kDefaultRate;
    const double f = std::clamp(sanitise(frequency, 1000.0), 20.0, 0.45 * sr);
    const double w = 2.0 * std::numbers::pi * f / sr;
    const double s = std::sin(w);
    const double c = std::cos(w);
    const double qq = std::clamp(sanitise(q, 0.707), 0.1, 18.0);
    const double alpha = s / (2.0 * qq);
    const double A = std::pow(10.0, std::clamp(g, -24.0, 24.0) / 40.0);

    const double N = A + 1.0;
    const double M = A - 1.0;
    const double P = N - M * c;
    const double Q = N + M * c;
    const double R = 2.0 * std::sqrt(A) * alpha;

    double b0 = 1, b1 = 0, b2 = 0, a0 = 1, a1 = 0, a2 = 0;
    switch (kind) {
        case RE_EQ_PEAK:
            b0 = 1.0 + alpha * A;
            b1 = -2.0 * c;
            b2 = 1.0 - alpha * A;
            a0 = 1.0 + alpha / A;
            a1 = -2.0 * c;
            a2 = 1.0 - alpha / A;
            break;
        case RE_EQ_LOW_SHELF:
            b0 = A * (P + R);
            b1 = 2.0 * A * (M - N * c);
            b2 = A * (P - R);
            a0 = Q + R;
            a1 = -2.0 * (M + N * c);
            a2 = Q - R;
            break;
        case RE_EQ_HIGH_SHELF:
            b0 = A * (Q + R);
            b1 = -2.0 * A * (M + N * c);
            b2 = A * (Q - R);
            a0 = P + R;
            a1 = 2.0 * (M - N * c);
            a2 = P - R;
            break;
        case RE_EQ_LOW_PASS:
            b0 = (1.0 - c) / 2.0;
            b1 = 1.0 - c;
            b2 = (1.0 - c) / 2.0;
            a0 = 1.0 + alpha;
            a1 = -2.0 * c;
            a2 = 1.0 - alpha;
            break;
        case RE_EQ_HIGH_PASS:
            b0 = (1.0 + c) / 2.0;
            b1 = -(1.0 + c);
            b2 = (1.0 + c) / 2.0;
            a0 = 1.0 + alpha;
            a1 = -2.0 * c;
            a2 = 1.0 - alpha;
            break;
        case RE_EQ_NOTCH:
            b0 = 1.0;
            b1 = -2.0 * c;
            b2 = 1.0;
            a0 = 1.0 + alpha;
            a1 = -2.0 * c;
            a2 = 1.0 - alpha;
            break;
        case RE_EQ_BAND_PASS:
            b0 = alpha;
            b1 = 0.0;
            b2 = -alpha;
            a0 = 1.0 + alpha;
            a1 = -2.0 * c;
            a2 = 1.0 - alpha;
            break;
        default:
            return out;
    }
    if (a0 == 0.0) return out;
    out.b0 = b0 / a0;
    out.b1 = b1 / a0;
    out.b2 = b2 / a0;
    out.a1 = a1 / a0;
    out.a2 = a2 / a0;
    return out;
}

float preamp_linear(double db) {
    // A NaN is taken as no change rather than silence or full boost.
    const double d = std::clamp(sanitise(db, 0.0), -24.0, 24.0);
    return static_cast<float>(std::pow(10.0, d / 20.0));
}

void refresh_active(re_eq* eq) {
    uint8_t any = 0;
    for (re_eq_live_band& b : eq->live) {
        const bool on = b.ramp != 0 || !is_identity(b.target);
        if (!on) {
            // A band that has finished gliding to nothing must not carry
            // stale memory into the day it is switched on again.
            b.s1[0] = b.s1[1] = b.s2[0] = b.s2[1] = 0.0;
        }
        b.active = on ? 1 : 0;
        any |= b.active;
    }
    if (eq->preampRamp != 0 || eq->preampTarget != 1.0f || eq->preampCurrent != 1.0f) any = 1;
    eq->active = any;
}

// Left and right go through the same sections with the same coefficients, so
// they travel as one pair of doubles: one instruction does both channels.
typedef double pair __attribute__((vector_size(16)));
typedef float pairf __attribute__((vector_size(8)));
typedef long long pair_mask __attribute__((vector_size(16)));
static_assert(sizeof(pair) == sizeof(re_eq_live_band{}.s1));

// Filter memory that has decayed below 1e-25 is dropped to zero before it can
// become a denormal and slow every later sample.
inline pair flush(pair v) {
    const pair_mask bits = (pair_mask)v;
    const pair mag = (pair)(bits & 0x7FFFFFFFFFFFFFFFLL);
    return (pair)(bits & ~(mag < kDenormalFloor));
}

// What the next band reads is the 32-bit sample, not the double result.
inline pair to_sample(pair v) {
    return __builtin_convertvector(__builtin_convertvector(v, pairf), pair);
}

}  // namespace

void re_eq_coefficients(uint32_t kind, double* b0, double* b1, double* b2, double* a1, double* a2,
                        double sampleRate, double frequency, double gainDb, double q) {
    const re_eq_coeffs c = design(kind, sampleRate, frequency, gainDb, q);
    if (b0) *b0 = c.b0;
    if (b1) *b1 = c.b1;
    if (b2) *b2 = c.b2;
    if (a1) *a1 = c.a1;
    if (a2) *a2 = c.a2;
}

double re_eq_band_magnitude_db(uint32_t kind, double sampleRate, double frequency, double gainDb,
                               double q, double atFrequency) {
    const re_eq_coeffs c = design(kind, sampleRate, frequency, gainDb, q);
    const double sr = sampleRate > 0.0 && std::isfinite(sampleRate) ? sampleRate : kDefaultRate;
    const double at = std::clamp(sanitise(atFrequency, 0.0), 0.0, sr / 2.0);
    const double w = 2.0 * std::numbers::pi * at / sr;
    const double cw = std::cos(w), sw = std::sin(w);
    const double c2w = std::cos(2.0 * w), s2w = std::sin(2.0 * w);
    const double dr = 1.0 + c.a1 * cw + c.a2 * c2w;
    const double di = c.a1 * sw + c.a2 * s2w;
    const double nr = c.b0 + c.b1 * cw + c.b2 * c2w;
    const double ni = c.b1 * sw + c.b2 * s2w;
    const double d = dr * dr + di * di;
    if (!(d > 0.0)) return 0.0;
    const double n = nr * nr + ni * ni;
    return 10.0 * std::log10(std::max(n / d, 1e-12));
}

void re_eq_publish_band(re_eq* eq, int32_t band, uint32_t kind, double frequency, double gainDb,
                        double q) {
    if (!eq || band < 0 || band >= RE_EQ_BANDS) return;
    re_eq_published_band& p = eq->pub[band];
    const uint32_t s = p.seq.load(std::memory_order_relaxed);
    // Release stores of the fields and acquire loads of them order the odd
    // count before them without a fence, which ThreadSanitizer cannot follow.
    p.seq.store(s + 1, std::memory_order_relaxed);
    p.kind.store(kind, std::memory_order_release);
    p.frequency.store(frequency, std::memory_order_release);
    p.gain.store(gainDb, std::memory_order_release);
    p.q.store(q, std::memory_order_release);
    p.seq.store(s + 2, std::memory_order_release);
}

void re_eq_publish_enabled(re_eq* eq, bool enabled) {
    if (!eq) return;
    eq->enabled.store(enabled ? 1 : 0, std::memory_order_relaxed);
}

void re_eq_publish_preamp_db(re_eq* eq, double db) {
    if (!eq) return;
    eq->preamp.store(preamp_linear(db), std::memory_order_relaxed);
}

int re_eq_take_clip(re_eq* eq) {
    if (!eq) return 0;
    return eq->clip.exchange(0, std::memory_order_relaxed) != 0 ? 1 : 0;
}

void re_eq_update(re_eq* eq, double sampleRate) {
    const uint8_t enabled = eq->enabled.load(std::memory_order_relaxed) != 0 ? 1 : 0;
    for (int i = 0; i < RE_EQ_BANDS; ++i) {
        re_eq_published_band& p = eq->pub[i];
        re_eq_live_band& b = eq->live[i];
        const uint32_t s = p.seq.load(std::memory_order_acquire);
        const bool odd = (s & 1u) != 0;
        if (s == b.seen_seq && std::fabs(sampleRate - b.seen_rate) <= 0.5 &&
            (odd || enabled == b.seen_enabled)) {
            continue;
        }
        // The writer is inside: leave the record for the next block.
        if (odd) continue;
        const uint32_t kind = p.kind.load(std::memory_order_acquire);
        const double frequency = p.frequency.load(std::memory_order_acquire);
        const double gain = p.gain.load(std::memory_order_acquire);
        const double q = p.q.load(std::memory_order_acquire);
        if (p.seq.load(std::memory_order_relaxed) != s) continue;

        // Disabling designs every band as nothing so that it glides away.
        const re_eq_coeffs next =
            design(enabled ? kind : RE_EQ_OFF, sampleRate, frequency, gain, q);
        if (!same(next, b.target)) {
            b.start = in_use(b);
            b.target = next;
            b.ramp = RE_EQ_RAMP;
        }
        b.seen_seq = s;
        b.seen_rate = sampleRate;
        b.seen_enabled = enabled;
    }

    const float target = enabled ? eq->preamp.load(std::memory_order_relaxed) : 1.0f;
    if (target != eq->preampTarget) {
        eq->preampStart = eq->preampCurrent;
        eq->preampTarget = target;
        eq->preampRamp = RE_EQ_RAMP;
    }
    refresh_active(eq);
}

void re_eq_apply_active(re_eq* eq, float* left, float* right) {
    if (eq->preampRamp != 0) {
        const float t = 1.0f - static_cast<float>(eq->preampRamp) / static_cast<float>(RE_EQ_RAMP);
        eq->preampCurrent = eq->preampStart + (eq->preampTarget - eq->preampStart) * t;
        if (eq->preampRamp-- == 1) eq->preampCurrent = eq->preampTarget;
    }
    pair x = {static_cast<double>(*left * eq->preampCurrent),
              static_cast<double>(*right * eq->preampCurrent)};
    for (re_eq_live_band& b : eq->live) {
        if (!b.active) continue;
        re_eq_coeffs c = b.target;
        if (b.ramp != 0) {
            c = blend(b.start, b.target, ramp_t(b.ramp));
            --b.ramp;
        }
        pair s1, s2;
        std::memcpy(&s1, b.s1, sizeof s1);
        std::memcpy(&s2, b.s2, sizeof s2);
        const pair y = c.b0 * x + s1;
        s1 = flush(s2 + c.b1 * x - c.a1 * y);
        s2 = flush(c.b2 * x - c.a2 * y);
        std::memcpy(b.s1, &s1, sizeof s1);
        std::memcpy(b.s2, &s2, sizeof s2);
        x = to_sample(y);
    }
    *left = static_cast<float>(x[0]);
    *right = static_cast<float>(x[1]);
}

void re_eq_reset_state(re_eq* eq) {
    for (re_eq_live_band& b : eq->live) {
        b.s1[0] = b.s1[1] = b.s2[0] = b.s2[1] = 0.0;
        b.start = b.target;
        b.ramp = 0;
    }
    eq->preampCurrent = eq->preampTarget;
    eq->preampStart = eq->preampTarget;
    eq->preampRamp = 0;
    refresh_active(eq);
}
