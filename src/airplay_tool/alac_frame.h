// One uncompressed ("verbatim") ALAC frame of 16-bit stereo: every receiver's
// decoder reads it, and making it costs nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace vt::airplay_tool {

inline constexpr size_t kFramesPerPacket = 352;
// 23 header bits, 32 bits a frame, the 3-bit end tag, padded to a byte.
inline constexpr size_t kAlacFrameBytes = (23 + kFramesPerPacket * 32 + 3 + 7) / 8;

// Writes `frames` interleaved stereo samples (host order, at most
// kFramesPerPacket frames; the rest of the packet is silence) as one frame of
// kAlacFrameBytes into `out`.
void packAlacStereo16(std::span<const int16_t> interleaved,
                      std::span<uint8_t, kAlacFrameBytes> out);

}  // namespace vt::airplay_tool
