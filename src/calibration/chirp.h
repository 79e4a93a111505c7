// The measurement's sounds: a logarithmic sweep, which cross-correlates into
// one sharp peak whatever the room does to single frequencies, and the click
// that tapping follows.
#pragma once

#include <vector>

namespace vt::calibration {

struct Chirp {
    std::vector<float> samples;
    double sampleRate = 0;

    // An exponential sweep from `fromHz` to `toHz` over `durationSec`, faded
    // in and out linearly over `fadeSec` so it starts and ends at 0.
    Chirp(double sampleRate, double durationSec, double fromHz, double toHz, double fadeSec);

    // The sweep every measurement plays: 0.3 s from 500 Hz to 8 kHz.
    static Chirp measurementSound(double sampleRate);
};

inline constexpr double kMeasurementLowHz = 500.0;
inline constexpr double kMeasurementHighHz = 8000.0;

// A short burst of noise with a fast decay, the same burst on every call.
std::vector<float> clickSound(double sampleRate, double durationSec);

}  // namespace vt::calibration
