// The real-time half of the equaliser: six biquad sections and a preamp per
// chain, parameters published lock-free from the main thread, coefficient
// changes gliding over 480 samples, and a clip latch read by the interface.
#pragma once

#include <atomic>
#include <cstdint>

inline constexpr int RE_EQ_BANDS = 6;
inline constexpr uint32_t RE_EQ_RAMP = 480;

// Kinds by index: 0 off, 1 peak, 2 low shelf, 3 high shelf, 4 low pass,
// 5 high pass, 6 notch, 7 band pass.
enum : uint32_t {
    RE_EQ_OFF = 0,
    RE_EQ_PEAK = 1,
    RE_EQ_LOW_SHELF = 2,
    RE_EQ_HIGH_SHELF = 3,
    RE_EQ_LOW_PASS = 4,
    RE_EQ_HIGH_PASS = 5,
    RE_EQ_NOTCH = 6,
    RE_EQ_BAND_PASS = 7,
};

struct re_eq_coeffs {
    double b0 = 1, b1 = 0, b2 = 0, a1 = 0, a2 = 0;
};

// One band as the main thread publishes it, behind a single-writer sequence
// lock. The fields are relaxed atomics so a torn read is merely discarded.
struct re_eq_published_band {
    std::atomic<uint32_t> seq{0};
    std::atomic<uint32_t> kind{0};
    std::atomic<double> frequency{1000.0};
    std::atomic<double> gain{0.0};
    std::atomic<double> q{0.707};
};

// One band as the rendering thread runs it.
struct re_eq_live_band {
    re_eq_coeffs start;
    re_eq_coeffs target;
    uint32_t ramp = 0;
    // Filter memory, left then right.
    double s1[2] = {0, 0};
    double s2[2] = {0, 0};
    uint8_t active = 0;
    uint32_t seen_seq = UINT32_MAX;
    double seen_rate = -1.0;
    uint8_t seen_enabled = 0xFF;
};

// Construct with its defaults (new re_eq{} or as a member of a value-
// initialised record), never by zero-filling: the defaults are the identity
// coefficients, a unity preamp and "nothing seen yet".
struct re_eq {
    re_eq_published_band pub[RE_EQ_BANDS];
    re_eq_live_band live[RE_EQ_BANDS];
    std::atomic<uint8_t> enabled{0};
    std::atomic<float> preamp{1.0f};  // linear
    float preampCurrent = 1.0f;
    float preampTarget = 1.0f;
    float preampStart = 1.0f;
    uint32_t preampRamp = 0;
    uint8_t active = 0;
    std::atomic<uint8_t> clip{0};
};

// Design (any thread).
void re_eq_coefficients(uint32_t kind, double* b0, double* b1, double* b2, double* a1, double* a2,
                        double sampleRate, double frequency, double gainDb, double q);
double re_eq_band_magnitude_db(uint32_t kind, double sampleRate, double frequency, double gainDb,
                               double q, double atFrequency);

// Publishing (the main thread; band outside 0..5 is ignored).
void re_eq_publish_band(re_eq* eq, int32_t band, uint32_t kind, double frequency, double gainDb,
                        double q);
void re_eq_publish_enabled(re_eq* eq, bool enabled);
void re_eq_publish_preamp_db(re_eq* eq, double db);
int re_eq_take_clip(re_eq* eq);

// Real-time (the slot's rendering thread).
void re_eq_update(re_eq* eq, double sampleRate);
void re_eq_apply_active(re_eq* eq, float* left, float* right);
inline void re_eq_apply(re_eq* eq, float* left, float* right) {
    if (!eq->active) return;  // a flat equaliser costs one test per frame
    re_eq_apply_active(eq, left, right);
}
// Zero every section's filter memory and finish any coefficient ramp by
// taking its target (used when a slot is reset).
void re_eq_reset_state(re_eq* eq);
// Set the clip latch at the end of a block in which this chain clipped.
inline void re_eq_note_clip(re_eq* eq) {
    eq->clip.store(1, std::memory_order_relaxed);
}
