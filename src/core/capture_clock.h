// The capture clock: a 0.5 Hz delay-locked loop from ring frames to host
// seconds, fed by the capture thread and published behind a sequence lock
// that readers retry a bounded number of times.
#pragma once

#include <cstdint>

#include "core/ring_engine_internal.h"

struct re_clock_snapshot {
    double frame;
    double host_sec;
    double sec_per_frame;
    double raw_host_sec;
    uint32_t block_frames;
    uint32_t generation;
    uint8_t valid;
};

// A consistent copy of the published clock within `attempts` tries; false if
// the writer was inside every time.
bool re_read_clock(const re_engine* e, int attempts, re_clock_snapshot* out);
