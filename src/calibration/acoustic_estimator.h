// Finds when a known sound arrived in a recording, to a sample or so, in an
// ordinary room. A phase-transform cross-correlation weights every frequency
// alike, so the room's resonances cannot pull the peak; the arrival is then
// the first rise of the correlation, not its peak, since the peak may be a
// reflection louder than the direct sound. Pure functions, callable from any
// thread.
#pragma once

#include <optional>
#include <span>
#include <vector>

namespace vt::calibration {

struct FrequencyBand {
    double lowHz = 0;
    double highHz = 0;
};

namespace AcousticEstimator {

// The onset is the first lag at this share of the peak.
inline constexpr float onsetFraction = 0.15f;
// A larger gap from onset to peak is a room and not a speaker.
inline constexpr double trustedSpreadMs = 8.0;
// For callers that need a peak this far above the median.
inline constexpr float minimumStrength = 14.0f;
// Below the peak, the onset must also clear this many times the median, so
// the noise floor never passes for it.
inline constexpr float noiseFloorFactor = 8.0f;
// How far before the peak the onset is looked for.
inline constexpr double onsetSearchSec = 0.05;

struct Arrival {
    double seconds = 0;   // onset from the start of the recording
    double spreadMs = 0;  // from the onset to the peak
};

struct Detection {
    double seconds = 0;
    double spreadMs = 0;
    float strength = 0;  // peak over median
};

// How the output's sound was heard against the reference's, in ms: positive
// when the output is later.
struct Measurement {
    double latencyMs = 0;
    double reflectionSpreadMs = 0;  // the larger of the two spreads
    bool trusted = false;           // both arrivals look like a speaker, not a room
    float strength = 0;             // the weaker of the two peaks over its median
    double referenceSec = 0;        // each arrival, from the start of its recording
    double outputSec = 0;
};

// The generalised cross-correlation with phase transform, one value per lag
// of the reference inside the recording (as long as the recording), as
// magnitudes, so a speaker's polarity does not matter. With a band, bins
// outside it (widened by 10 % each way) count for nothing.
std::vector<float> phatCorrelation(std::span<const float> recording,
                                   std::span<const float> reference, double sampleRate,
                                   std::optional<FrequencyBand> band = std::nullopt);

// Nothing for a rate not above 0, an empty reference, a recording no longer
// than the reference, or a correlation with no peak.
std::optional<Arrival> arrival(std::span<const float> reference, std::span<const float> recording,
                               double sampleRate);
std::optional<Detection> detect(std::span<const float> reference, std::span<const float> recording,
                                double sampleRate);
// For noisy rooms: the onset is looked for only shortly before the peak, and
// must clear the noise floor as well as a share of the peak.
std::optional<Detection> detectNearPeak(std::span<const float> reference,
                                        std::span<const float> recording, double sampleRate,
                                        FrequencyBand band);

// With a band through detectNearPeak, without one through detect. Nothing
// when either recording gives nothing.
std::optional<Measurement> relativeLatency(std::span<const float> sound,
                                           std::span<const float> referenceRecording,
                                           std::span<const float> outputRecording,
                                           double sampleRate,
                                           std::optional<FrequencyBand> band = std::nullopt);

}  // namespace AcousticEstimator
}  // namespace vt::calibration
