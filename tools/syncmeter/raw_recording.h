// Recordings of several monitors taken as one multi-channel capture (on
// PipeWire: one pw-record node linked to each sink's monitor port), read
// back from a file of interleaved 32-bit floats. Every channel was recorded
// in the same graph cycle, so all share one time line: no per-stream timing
// is needed, unlike recordings made through separate streams.
#pragma once

#include <string>
#include <vector>

#include "recorder.h"

namespace vt::syncmeter {

// The most channels and bytes a file may hold; anything beyond is refused.
inline constexpr size_t kMaxRawChannels = 16;
inline constexpr size_t kMaxRawBytes = size_t{1} << 31;

// One Recording per name, channel k of `channels` for names[k], at `rate`,
// skipping the first `skipSec`; channels past the names are left out. A trailing partial frame is
// dropped; samples that are not finite numbers read as 0 and are counted as lost. Throws
// std::runtime_error for a file that cannot be read or is out of bounds.
std::vector<Recording> readRawRecording(const std::string& path, double rate, size_t channels,
                                        const std::vector<RecordRequest>& names, double skipSec);

// The same from bytes in memory (the file's contents).
std::vector<Recording> parseRawRecording(const unsigned char* data, size_t size, double rate,
                                         size_t channels, const std::vector<RecordRequest>& names,
                                         double skipSec);

}  // namespace vt::syncmeter
