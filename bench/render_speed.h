// How many slots one core could render in real time.
#pragma once

#include <cstdint>

struct render_speed_case {
    double ratio;    // ring frames per output frame
    bool eq;         // all six bands of both equalisers active
    double cpu_sec;  // CPU time to spend measuring
};

// Output frames rendered per CPU second, divided by 48000.
double measure_slot_realtimes(const render_speed_case& c);
