// The one audio format a Cast TV is sent: endless 16-bit stereo PCM at
// 44.1 kHz in a WAV wrapper whose sizes say "unknown".
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vt::cast {

inline constexpr uint32_t kCastSampleRateHz = 44100;
inline constexpr uint32_t kCastBytesPerFrame = 4;
inline constexpr uint32_t kCastBytesPerSecond = kCastSampleRateHz * kCastBytesPerFrame;
inline constexpr size_t kWavHeaderBytes = 44;

std::array<uint8_t, kWavHeaderBytes> endlessWavHeader();

}  // namespace vt::cast
