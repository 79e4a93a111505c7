#include "airplay_tool/pcm_input.h"

#include <algorithm>

namespace vt::airplay_tool {

namespace {
int16_t sampleAt(PcmFormat format, const uint8_t* p) {
    if (format.bitDepth == 16) return static_cast<int16_t>(p[0] | p[1] << 8);
    // s32le: the top 16 bits.
    return static_cast<int16_t>(p[2] | p[3] << 8);
}
}  // namespace

size_t toStereo16(PcmFormat format, std::span<const uint8_t> in, std::span<int16_t> out) {
    const size_t frameBytes = format.bytesPerFrame();
    const size_t sampleBytes = frameBytes / static_cast<size_t>(format.channels);
    const size_t frames = std::min(in.size() / frameBytes, out.size() / 2);
    for (size_t f = 0; f < frames; ++f) {
        const uint8_t* frame = in.data() + f * frameBytes;
        const int16_t left = sampleAt(format, frame);
        const int16_t right = format.channels == 1 ? left : sampleAt(format, frame + sampleBytes);
        out[2 * f] = left;
        out[2 * f + 1] = right;
    }
    return frames;
}

}  // namespace vt::airplay_tool
