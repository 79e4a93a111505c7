// Replacement global allocation functions that count calls while armed.
#pragma once

void heap_counting_start();
// Disarms and returns the allocations and frees seen since the start.
long heap_counting_stop();
