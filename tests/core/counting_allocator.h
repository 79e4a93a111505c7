// Replacement global allocation functions that count calls while armed.
// Linked into the core's test binary; only the real-time check arms them.
#pragma once

void heap_counting_start();
// Disarms and returns the allocations and frees seen since the start.
long heap_counting_stop();
