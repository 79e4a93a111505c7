// Float to signed 16-bit with triangular dither of one step, from one generator
// carried across the whole stream. Exact zero, NaN and infinities give 0 so that
// digital silence stays silent.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vt::sendspin {

class DitherQuantizer {
  public:
    int16_t quantize(float x);
    void quantize(const float* in, int16_t* out, size_t count);

  private:
    double nextDither();
    uint64_t state_ = 0x9e3779b97f4a7c15ULL;
};

}  // namespace vt::sendspin
