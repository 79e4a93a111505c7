#include "engine/pcm16_quantizer.h"

#include <cmath>

namespace vt::engine {

float PCM16Quantizer::nextUniform() {
    uint64_t x = state_;
    x ^= x >> 12;
    x ^= x << 25;
    x ^= x >> 27;
    state_ = x;
    // The top 24 bits of the scrambled state fill a float's mantissa exactly.
    return static_cast<float>((x * 0x2545F4914F6CDD1DULL) >> 40) * 5.9604645e-8f;
}

int16_t PCM16Quantizer::quantize(float sample) {
    if (!std::isfinite(sample) || sample == 0.0f) return 0;
    float first = nextUniform();
    float second = nextUniform();
    float v = std::round(sample * 32767.0f + first - second);
    if (v > 32767.0f) v = 32767.0f;
    if (v < -32768.0f) v = -32768.0f;
    return static_cast<int16_t>(v);
}

void PCM16Quantizer::convert(const float* in, int16_t* out, size_t count) {
    // The steps of quantize() with the generator held in a register: this runs
    // for every sample of every network output, 96,000 a second each.
    uint64_t x = state_;
    const auto uniform = [&x] {
        x ^= x >> 12;
        x ^= x << 25;
        x ^= x >> 27;
        return static_cast<float>((x * 0x2545F4914F6CDD1DULL) >> 40) * 5.9604645e-8f;
    };
    for (size_t i = 0; i < count; ++i) {
        const float sample = in[i];
        if (!std::isfinite(sample) || sample == 0.0f) {
            out[i] = 0;
            continue;
        }
        const float first = uniform();
        const float second = uniform();
        const float v = std::round(sample * 32767.0f + first - second);
        out[i] = static_cast<int16_t>(v > 32767.0f ? 32767.0f : v < -32768.0f ? -32768.0f : v);
    }
    state_ = x;
}

}  // namespace vt::engine
