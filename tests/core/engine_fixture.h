// Helpers for the core's tests. The ramp signal's left sample is its own
// frame number and its right sample 1, so left / right of a rendered frame
// names the ring position it was read from, whatever the gain was.
#pragma once

#include <memory>
#include <vector>

#include "core/ring_engine_internal.h"

struct engine_deleter {
    void operator()(re_engine* e) const { re_engine_destroy(e); }
};
using engine_ptr = std::unique_ptr<re_engine, engine_deleter>;

inline engine_ptr make_engine() {
    return engine_ptr(re_engine_create());
}
inline double written(const re_engine* e) {
    return static_cast<double>(re_engine_frames_written(e));
}
inline double frame_of(const std::vector<float>& out, uint32_t f) {
    return static_cast<double>(out[2 * f]) / out[2 * f + 1];
}

void write_ramp(re_engine* e, uint32_t frames);
void write_const(re_engine* e, uint32_t frames, float left, float right);
// Untimed when present_sec is negative, else host-timed.
std::vector<float> render(re_engine* e, int32_t slot, uint32_t frames, double present_sec = -1.0,
                          double now_sec = 0.0);
