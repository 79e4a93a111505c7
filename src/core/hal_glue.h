// The two device callbacks between sound-server streams and the ring engine.
// They take the shape of a device I/O callback (buffer lists and time stamps)
// so that every backend drives them the same way: the capture stream calls
// re_input_ioproc with the block's first-frame host time, each playback stream
// calls re_output_ioproc with the host time its first frame will be heard.
// Neither locks, allocates, logs or makes a system call.
#pragma once

#include <cstdint>

#include "core/ring_engine.h"

inline constexpr uint32_t RE_IO_MAX_FRAMES = 4096;
inline constexpr uint32_t RE_MAX_BUFFERS = 8;

inline constexpr uint32_t kAudioTimeStampSampleTimeValid = 1u << 0;
inline constexpr uint32_t kAudioTimeStampHostTimeValid = 1u << 1;

struct re_audio_buffer {
    uint32_t mNumberChannels = 0;
    uint32_t mDataByteSize = 0;
    void* mData = nullptr;
};

struct re_audio_buffer_list {
    uint32_t mNumberBuffers = 0;
    re_audio_buffer mBuffers[RE_MAX_BUFFERS];
};

struct re_audio_timestamp {
    double mSampleTime = 0.0;
    uint64_t mHostTime = 0;  // host clock ticks (nanoseconds of CLOCK_MONOTONIC)
    uint32_t mFlags = 0;
};

struct re_input_ctx {
    re_engine* engine = nullptr;
    float scratch[RE_IO_MAX_FRAMES * 2];
};

struct re_output_ctx {
    re_engine* engine = nullptr;
    uint32_t slot = 0;
    float scratch[RE_IO_MAX_FRAMES * 2];
};

// device is an opaque identifier, unused by the callbacks. Both return 0.
int re_input_ioproc(uint32_t device, const re_audio_timestamp* now,
                    const re_audio_buffer_list* inInputData, const re_audio_timestamp* inInputTime,
                    re_audio_buffer_list* outOutputData, const re_audio_timestamp* inOutputTime,
                    void* clientData);
int re_output_ioproc(uint32_t device, const re_audio_timestamp* now,
                     const re_audio_buffer_list* inInputData, const re_audio_timestamp* inInputTime,
                     re_audio_buffer_list* outOutputData, const re_audio_timestamp* inOutputTime,
                     void* clientData);
