// The two callbacks our sound-server streams drive the ring engine through.
// Both take plain interleaved stereo float frames (the format every stream of
// ours is opened with) and a host time on CLOCK_MONOTONIC in seconds:
// re_capture_block with the time the block's first frame was played into the
// captured sink, re_playback_block with the time its first frame will be
// heard. Neither locks, allocates, logs or makes a system call beyond reading
// the host clock.
#pragma once

#include <cstdint>

#include "core/ring_engine.h"

// The most frames a stream hands over in one call; longer runs are split.
inline constexpr uint32_t RE_IO_MAX_FRAMES = 4096;

struct re_input_ctx {
    re_engine* engine = nullptr;
};

struct re_output_ctx {
    re_engine* engine = nullptr;
    uint32_t slot = 0;
};

// `ctx` is a re_input_ctx. `host_sec` at or below 0: the time is unknown and
// the block is written without being noted in the capture clock.
// `stream_frame` is the stream's own count of frames before this block, or
// negative if it keeps none; a jump in it means the stream was interrupted.
void re_capture_block(void* ctx, const float* frames, uint32_t count, double host_sec,
                      double stream_frame);

// `ctx` is a re_output_ctx; `frames` receives `count` rendered frames.
// `present_sec` at or below 0: the time is unknown, and the slot keeps its
// place by the ring's fill (or coasts on its last time). The slot keeps its
// own position, so the stream's is not needed. False when the slot, having
// sounded, is silent because the audio it needs has not been captured yet.
bool re_playback_block(void* ctx, float* frames, uint32_t count, double present_sec,
                       double stream_frame);
