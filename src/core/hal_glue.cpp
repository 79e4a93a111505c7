#include "core/hal_glue.h"

#include <algorithm>
#include <cstring>

namespace {

bool host_time_valid(const re_audio_timestamp* t) {
    return t != nullptr && (t->mFlags & kAudioTimeStampHostTimeValid) != 0;
}

uint32_t capped(uint32_t frames) {
    return std::min(frames, RE_IO_MAX_FRAMES);
}

void zero_buffer(const re_audio_buffer& b) {
    if (b.mData != nullptr) std::memset(b.mData, 0, b.mDataByteSize);
}

}  // namespace

int re_input_ioproc(uint32_t, const re_audio_timestamp*, const re_audio_buffer_list* inInputData,
                    const re_audio_timestamp* inInputTime, re_audio_buffer_list*,
                    const re_audio_timestamp*, void* clientData) {
    auto* ctx = static_cast<re_input_ctx*>(clientData);
    if (ctx == nullptr || inInputData == nullptr || inInputData->mNumberBuffers == 0) return 0;
    re_engine* e = ctx->engine;
    const re_audio_buffer& b0 = inInputData->mBuffers[0];
    const uint32_t channels = b0.mNumberChannels;

    // Stamp first, so the anchor names the frame about to be written.
    if (host_time_valid(inInputTime)) {
        const uint32_t frames = capped(b0.mDataByteSize / (4 * (channels == 0 ? 1 : channels)));
        const double sample_time = (inInputTime->mFlags & kAudioTimeStampSampleTimeValid) != 0
                                       ? inInputTime->mSampleTime
                                       : -1.0;
        re_engine_note_capture(e, re_engine_frames_written(e), frames,
                               re_engine_host_ticks_to_sec(e, inInputTime->mHostTime), sample_time);
    }

    if (b0.mData == nullptr) return 0;
    const auto* src = static_cast<const float*>(b0.mData);
    float* scratch = ctx->scratch;
    if (channels == 2) {
        re_engine_write(e, src, capped(b0.mDataByteSize / 8));
    } else if (channels >= 3) {
        const uint32_t frames = capped(b0.mDataByteSize / (4 * channels));
        for (uint32_t f = 0; f < frames; ++f) {
            scratch[2 * f] = src[f * channels];
            scratch[2 * f + 1] = src[f * channels + 1];
        }
        re_engine_write(e, scratch, frames);
    } else if (inInputData->mNumberBuffers >= 2) {
        const re_audio_buffer& b1 = inInputData->mBuffers[1];
        const auto* right = static_cast<const float*>(b1.mData);
        // Frames follow buffer 0; a shorter or missing right buffer reads as silence.
        const uint32_t frames = capped(b0.mDataByteSize / 4);
        const uint32_t right_frames = right != nullptr ? b1.mDataByteSize / 4 : 0;
        for (uint32_t f = 0; f < frames; ++f) {
            scratch[2 * f] = src[f];
            scratch[2 * f + 1] = f < right_frames ? right[f] : 0.0f;
        }
        re_engine_write(e, scratch, frames);
    } else {
        const uint32_t frames = capped(b0.mDataByteSize / 4);
        for (uint32_t f = 0; f < frames; ++f) {
            scratch[2 * f] = src[f];
            scratch[2 * f + 1] = src[f];
        }
        re_engine_write(e, scratch, frames);
    }
    return 0;
}

int re_output_ioproc(uint32_t, const re_audio_timestamp*, const re_audio_buffer_list*,
                     const re_audio_timestamp*, re_audio_buffer_list* outOutputData,
                     const re_audio_timestamp* inOutputTime, void* clientData) {
    auto* ctx = static_cast<re_output_ctx*>(clientData);
    if (ctx == nullptr || outOutputData == nullptr || outOutputData->mNumberBuffers == 0) return 0;
    re_engine* e = ctx->engine;
    const uint32_t nbuf = std::min(outOutputData->mNumberBuffers, RE_MAX_BUFFERS);
    const re_audio_buffer& b0 = outOutputData->mBuffers[0];
    const uint32_t channels = b0.mNumberChannels;
    const uint32_t frames = capped(b0.mDataByteSize / (4 * (channels == 0 ? 1 : channels)));

    double present_sec = 0.0;
    if (host_time_valid(inOutputTime)) {
        present_sec = re_engine_host_ticks_to_sec(e, inOutputTime->mHostTime);
    }
    float* scratch = ctx->scratch;
    re_engine_render_at(e, static_cast<int32_t>(ctx->slot), scratch, frames, present_sec);

    if (channels >= 2) {
        zero_buffer(b0);
        if (frames > 0 && b0.mData != nullptr) {
            auto* dst = static_cast<float*>(b0.mData);
            for (uint32_t f = 0; f < frames; ++f) {
                dst[f * channels] = scratch[2 * f];
                dst[f * channels + 1] = scratch[2 * f + 1];
            }
        }
        for (uint32_t b = 1; b < nbuf; ++b) zero_buffer(outOutputData->mBuffers[b]);
        return 0;
    }

    // Planar or mono: left to buffer 0, right to buffer 1. A lone mono buffer
    // gets the left channel only, never a down-mix.
    for (uint32_t b = 0; b < nbuf && b < 2; ++b) {
        const re_audio_buffer& buf = outOutputData->mBuffers[b];
        if (buf.mData == nullptr) continue;
        auto* dst = static_cast<float*>(buf.mData);
        const uint32_t n = std::min(frames, buf.mDataByteSize / 4);
        for (uint32_t f = 0; f < n; ++f) dst[f] = scratch[2 * f + b];
    }
    for (uint32_t b = 2; b < nbuf; ++b) zero_buffer(outOutputData->mBuffers[b]);
    return 0;
}
