// Reads an ALAC frame as a receiver's decoder does, for the verbatim
// (uncompressed) frames of 16-bit stereo that senders of realtime audio
// send: the element header, the optional frame count, the samples, the end
// tag. Anything else (compressed frames, other channel layouts) is refused.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace vt::airplay_test {

// Interleaved stereo samples, or nothing for a frame it cannot read.
std::optional<std::vector<int16_t>> decodeVerbatimAlac(std::span<const uint8_t> frame,
                                                       size_t framesPerPacket);

}  // namespace vt::airplay_test
