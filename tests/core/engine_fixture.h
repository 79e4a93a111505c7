// Shared helpers for the core's tests: an owned engine, a test signal whose
// left sample is its own frame number (so a rendered value names the ring
// frame it came from), and a capture stream on a virtual host clock.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "core/ring_engine.h"
#include "core/ring_engine_internal.h"

struct engine_deleter {
    void operator()(re_engine* e) const { re_engine_destroy(e); }
};
using engine_ptr = std::unique_ptr<re_engine, engine_deleter>;

engine_ptr make_engine();

// Appends frames whose left sample is the frame number and right sample 1.
void write_ramp(re_engine* e, uint32_t frames);
void write_const(re_engine* e, uint32_t frames, float left, float right);

std::vector<float> render(re_engine* e, int32_t slot, uint32_t frames);
std::vector<float> render_timed(re_engine* e, int32_t slot, uint32_t frames, double present_sec,
                                double now_sec);

// Ring frame a rendered ramp frame came from (left over right undoes the gain).
double frame_of(const std::vector<float>& out, uint32_t frame);

// A capture device delivering ramp blocks with first-frame host times on a
// virtual clock: frame f is captured at start_sec + offset_sec + f / 48000.
struct capture_sim {
    re_engine* e;
    double start_sec = 100.0;
    double offset_sec = 0.0;

    double host_of(double frame) const { return start_sec + offset_sec + frame / RE_RATE; }
    void block(uint32_t frames);
};
