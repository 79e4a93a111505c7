#include "engine_fixture.h"

void write_ramp(re_engine* e, uint32_t frames) {
    std::vector<float> buf(2 * frames, 1.0f);
    for (uint32_t f = 0; f < frames; ++f) buf[2 * f] = static_cast<float>(written(e) + f);
    re_engine_write(e, buf.data(), frames);
}

void write_const(re_engine* e, uint32_t frames, float left, float right) {
    std::vector<float> buf(2 * frames, right);
    for (uint32_t f = 0; f < frames; ++f) buf[2 * f] = left;
    re_engine_write(e, buf.data(), frames);
}

std::vector<float> render(re_engine* e, int32_t slot, uint32_t frames, double present_sec,
                          double now_sec) {
    std::vector<float> out(2 * frames, -99.0f);
    if (present_sec < 0) {
        re_engine_render(e, slot, out.data(), frames);
    } else {
        re_engine_render_at_host(e, slot, out.data(), frames, present_sec, now_sec);
    }
    return out;
}
