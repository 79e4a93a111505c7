#include "engine_fixture.h"

engine_ptr make_engine() {
    return engine_ptr(re_engine_create());
}

void write_ramp(re_engine* e, uint32_t frames) {
    const uint64_t first = re_engine_frames_written(e);
    std::vector<float> buf(2 * static_cast<size_t>(frames));
    for (uint32_t f = 0; f < frames; ++f) {
        buf[2 * f] = static_cast<float>(first + f);
        buf[2 * f + 1] = 1.0f;
    }
    re_engine_write(e, buf.data(), frames);
}

void write_const(re_engine* e, uint32_t frames, float left, float right) {
    std::vector<float> buf(2 * static_cast<size_t>(frames));
    for (uint32_t f = 0; f < frames; ++f) {
        buf[2 * f] = left;
        buf[2 * f + 1] = right;
    }
    re_engine_write(e, buf.data(), frames);
}

std::vector<float> render(re_engine* e, int32_t slot, uint32_t frames) {
    std::vector<float> out(2 * static_cast<size_t>(frames), -99.0f);
    re_engine_render(e, slot, out.data(), frames);
    return out;
}

std::vector<float> render_timed(re_engine* e, int32_t slot, uint32_t frames, double present_sec,
                                double now_sec) {
    std::vector<float> out(2 * static_cast<size_t>(frames), -99.0f);
    re_engine_render_at_host(e, slot, out.data(), frames, present_sec, now_sec);
    return out;
}

double frame_of(const std::vector<float>& out, uint32_t frame) {
    return static_cast<double>(out[2 * frame]) / static_cast<double>(out[2 * frame + 1]);
}

void capture_sim::block(uint32_t frames) {
    const uint64_t f = re_engine_frames_written(e);
    re_engine_note_capture(e, f, frames, host_of(static_cast<double>(f)), -1.0);
    write_ramp(e, frames);
}
