// Signal-to-noise ratio of a slot reading a clean sine through the ring.
#pragma once

#include <cstdint>

// Writes a 1 kHz sine at -1 dBFS into the ring, renders it through one slot
// at `ratio` in blocks of `block` output frames (chosen so that every block
// consumes a whole number of ring frames and the rate loop stays still), and
// fits the sine at the output rate: everything else counts as noise.
double measure_snr_db(double ratio, uint32_t block);
