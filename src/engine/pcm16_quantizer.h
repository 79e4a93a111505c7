// Float samples to 16-bit for the network senders, with triangular dither
// from a small xorshift generator. Deterministic for a given seed, so a
// sender's output can be reproduced in tests.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vt::engine {

class PCM16Quantizer {
  public:
    explicit PCM16Quantizer(uint64_t seed = 1) : state_(seed == 0 ? 1 : seed) {}

    // NaN, infinities and exact zeros give 0 without drawing dither, so
    // silence stays digital silence.
    int16_t quantize(float sample);
    void convert(const float* in, int16_t* out, size_t count);

    uint64_t state() const { return state_; }

  private:
    float nextUniform();

    uint64_t state_;
};

}  // namespace vt::engine
