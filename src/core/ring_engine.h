// The real-time core: one ring of captured 48 kHz stereo audio, its capture
// clock, and twenty readers ("slots") that each render at their own rate,
// delay, equaliser, gain and stereo matrix.
//
// Threading: one capture thread calls re_engine_note_capture and
// re_engine_write; each slot is rendered by exactly one thread at a time;
// any control thread may call the setters and getters. Nothing on the write,
// render or scope paths allocates, locks, logs or makes a system call other
// than reading the host clock.
#pragma once

#include <cstdint>

inline constexpr double RE_RATE = 48000.0;
inline constexpr uint32_t RE_RING_FRAMES = 1u << 20;
inline constexpr uint32_t RE_RING_MASK = RE_RING_FRAMES - 1;
inline constexpr int RE_SLOTS = 20;
inline constexpr double RE_BASE_LAG = 4096.0;
inline constexpr int RE_PHASES = 512;
inline constexpr uint32_t RE_FADE_FRAMES = 512;
inline constexpr float RE_RAMP_STEP = 1.0f / 240.0f;
inline constexpr int RE_MAX_KERNELS = 16;

struct re_engine;
struct re_kernel;

// Lifetime. Interpolation tables are process-wide and outlive every engine.
re_engine* re_engine_create();
void re_engine_destroy(re_engine* e);
void re_engine_reset(re_engine* e);
void re_engine_reset_reader(re_engine* e, int32_t slot);

// Capture side (one thread).
void re_engine_note_capture(re_engine* e, uint64_t frame, uint32_t frames, double host_sec,
                            double sample_time);
void re_engine_write(re_engine* e, const float* interleaved, uint32_t count);
uint64_t re_engine_frames_written(const re_engine* e);
double re_engine_frame_host_sec(const re_engine* e, double frame);

// Scopes.
void re_engine_envelope(const re_engine* e, float* out, uint32_t points, uint32_t frames_per_point);
void re_engine_recent(const re_engine* e, float* out, uint32_t count, uint32_t frames_back);

// Control (any thread).
void re_engine_set_delay_ms(re_engine* e, int32_t slot, double ms);
double re_engine_delay_ms(const re_engine* e, int32_t slot);
void re_engine_set_base_ratio(re_engine* e, int32_t slot, double ratio);
void re_engine_set_gain(re_engine* e, int32_t slot, float gain);
void re_engine_set_mix(re_engine* e, int32_t slot, float ll, float lr, float rl, float rr);
void re_engine_set_test_gain(re_engine* e, int32_t slot, float gain);

// Telemetry.
uint8_t re_engine_primed(const re_engine* e, int32_t slot);
uint8_t re_engine_timed(const re_engine* e, int32_t slot);
double re_engine_fill_err_ms(const re_engine* e, int32_t slot);
double re_engine_late_ms(const re_engine* e, int32_t slot);
double re_engine_ppm(const re_engine* e, int32_t slot);
// Frames of silence the slot played, after it had sounded, because the audio
// it needed was not (or no longer) in the ring.
uint64_t re_engine_starved_frames(const re_engine* e, int32_t slot);
// Whether the slot's last block was such silence. The slot's own thread only.
uint8_t re_engine_starving(const re_engine* e, int32_t slot);
void re_engine_take_peak(re_engine* e, int32_t slot, float* left, float* right);

// Host clock (CLOCK_MONOTONIC; ticks are nanoseconds).
double re_engine_host_ticks_to_sec(const re_engine* e, uint64_t ticks);
double re_engine_host_now_sec(const re_engine* e);
uint64_t re_host_now_ticks();

// Rendering (the slot's own thread).
void re_engine_render(re_engine* e, int32_t slot, float* out, uint32_t frames);
void re_engine_render_at(re_engine* e, int32_t slot, float* out, uint32_t frames,
                         double present_sec);
void re_engine_render_at_host(re_engine* e, int32_t slot, float* out, uint32_t frames,
                              double present_sec, double now_sec);

// Equalisers: slot 0..19, band 0..5; anything else is ignored.
void re_engine_set_eq_band(re_engine* e, int32_t slot, int32_t band, uint32_t kind,
                           double frequency, double gain_db, double q);
void re_engine_set_eq_enabled(re_engine* e, int32_t slot, bool enabled);
void re_engine_set_eq_preamp_db(re_engine* e, int32_t slot, double db);
int re_engine_take_eq_clip(re_engine* e, int32_t slot);
void re_engine_set_master_eq_band(re_engine* e, int32_t band, uint32_t kind, double frequency,
                                  double gain_db, double q);
void re_engine_set_master_eq_enabled(re_engine* e, bool enabled);
void re_engine_set_master_eq_preamp_db(re_engine* e, double db);
int re_engine_take_master_eq_clip(re_engine* e);

// Interpolation tables (control threads only: may build a table under a mutex).
const re_kernel* re_kernel_for(double ratio);
