#include "cast/wav_stream.h"

#include <cstring>

namespace vt::cast {
namespace {

void put32(uint8_t* at, uint32_t value) {
    for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
}

void put16(uint8_t* at, uint16_t value) {
    at[0] = static_cast<uint8_t>(value);
    at[1] = static_cast<uint8_t>(value >> 8);
}

}  // namespace

std::array<uint8_t, kWavHeaderBytes> endlessWavHeader() {
    constexpr uint32_t kUnknownSize = 0xFFFFFFFF;
    std::array<uint8_t, kWavHeaderBytes> h{};
    std::memcpy(&h[0], "RIFF", 4);
    put32(&h[4], kUnknownSize);
    std::memcpy(&h[8], "WAVE", 4);
    std::memcpy(&h[12], "fmt ", 4);
    put32(&h[16], 16);
    put16(&h[20], 1);  // PCM
    put16(&h[22], 2);  // channels
    put32(&h[24], kCastSampleRateHz);
    put32(&h[28], kCastBytesPerSecond);
    put16(&h[32], kCastBytesPerFrame);
    put16(&h[34], 16);
    std::memcpy(&h[36], "data", 4);
    put32(&h[40], kUnknownSize);
    return h;
}

}  // namespace vt::cast
