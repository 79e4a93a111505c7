// A recording file read back by the syncmeter: any bytes, any channel count
// and skip. Every recording must come back with the same length, and never a
// sample that is not a finite number.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "raw_recording.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const size_t channels = data[0] % 20;
    const double skip = (data[1] % 8) * 0.25e-3;
    std::vector<vt::syncmeter::RecordRequest> names;
    for (size_t c = 0; c < (data[1] >> 3) % 18; ++c) names.push_back({"n", "p"});
    try {
        const auto recs =
            vt::syncmeter::parseRawRecording(data + 2, size - 2, 8000, channels, names, skip);
        for (const auto& r : recs) {
            if (r.left.size() != recs[0].left.size() || r.right.size() != r.left.size())
                std::abort();
            for (float v : r.left)
                if (!std::isfinite(v)) std::abort();
        }
    } catch (const std::runtime_error&) {
    }
    return 0;
}
