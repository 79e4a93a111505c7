#include "core/stream_callbacks.h"

void re_capture_block(void* ctx, const float* frames, uint32_t count, double host_sec,
                      double stream_frame) {
    auto* in = static_cast<re_input_ctx*>(ctx);
    if (in == nullptr || count == 0) return;
    re_engine* e = in->engine;
    // Stamp first, so that the anchor names the frame about to be written.
    if (host_sec > 0.0) {
        re_engine_note_capture(e, re_engine_frames_written(e), count, host_sec, stream_frame);
    }
    if (frames != nullptr) re_engine_write(e, frames, count);
}

bool re_playback_block(void* ctx, float* frames, uint32_t count, double present_sec, double) {
    auto* out = static_cast<re_output_ctx*>(ctx);
    if (out == nullptr || frames == nullptr || count == 0) return true;
    const auto slot = static_cast<int32_t>(out->slot);
    re_engine_render_at(out->engine, slot, frames, count, present_sec > 0.0 ? present_sec : 0.0);
    return re_engine_starving(out->engine, slot) == 0;
}
