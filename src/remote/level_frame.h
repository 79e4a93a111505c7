// One update of the meters.
#pragma once

#include <vector>

namespace vt::remote {

struct LevelFrame {
    static constexpr double peakLimit = 2.0;

    std::vector<int> slots;
    std::vector<float> peaks;  // parallel to slots
    float left = 0;            // master meters
    float right = 0;
    bool operator==(const LevelFrame&) const = default;
};

}  // namespace vt::remote
