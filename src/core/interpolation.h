// Interpolation tables (Kaiser-windowed sinc, RE_PHASES phases) and reading
// one stereo sample of the ring at a fractional position through them.
// Tables are built on a control thread and live for the whole process, so a
// rendering thread may hold one without a lock.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "core/ring_engine_internal.h"

struct re_stereo {
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
inline re_stereo re_sample_at(const float* ring, const re_kernel* kern, double pos) {
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
