// PCM as the app writes it on standard input: s16le, or s32le with
// --bitdepth 24, mono or stereo. The stream to the receiver is 16-bit stereo.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace vt::airplay_tool {

struct PcmFormat {
    int bitDepth = 16;  // 16: s16le, 24: s32le
    int channels = 2;
    size_t bytesPerFrame() const {
        return (bitDepth == 16 ? 2u : 4u) * static_cast<size_t>(channels);
    }
};

// Converts whole frames of `in` into interleaved stereo 16-bit samples
// (`out` holds two per frame); returns the frames converted.
size_t toStereo16(PcmFormat format, std::span<const uint8_t> in, std::span<int16_t> out);

}  // namespace vt::airplay_tool
