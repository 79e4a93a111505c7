// The measurements made on recordings of the same noise at several outputs:
// how much later one output plays a stretch of it than another, at several
// points along the run, and whether any output fell silent inside it.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

namespace vt::syncmeter {

struct Track {
    const std::vector<float>* samples = nullptr;
    double rate = 0;             // nominal
    double firstFrameSec = 0;    // when sample 0 played
    double secondsPerFrame = 0;  // as played; 1 / rate when 0
};

// `b` resampled onto `a`'s sample grid: out[i] is b as it sounded at the
// moment a's sample i played. Outside b's span the value is 0.
std::vector<float> resampleOnto(const Track& a, const Track& b);

// The lag in samples (sub-sample) that best matches ref[i] to other[i + lag]
// for i in [begin, begin + length), searched within [minLag, maxLag].
std::optional<double> bestLag(const std::vector<float>& ref, const std::vector<float>& other,
                              size_t begin, size_t length, long minLag, long maxLag);

// The rough lag of the whole overlap by FFT cross-correlation, within
// +-maxLag samples.
std::optional<long> coarseLag(const std::vector<float>& ref, const std::vector<float>& other,
                              long maxLag);

inline double periodOf(const Track& t) {
    return t.secondsPerFrame > 0 ? t.secondsPerFrame : 1.0 / t.rate;
}

struct OffsetPoint {
    double atSec = 0;     // seconds into a's recording
    double offsetMs = 0;  // b plays the same sound this much later than a
};

// The offset of b against a measured in `windows` windows spread over the
// run. Empty when the recordings do not overlap or hold no common sound.
std::vector<OffsetPoint> measureOffsets(const Track& a, const Track& b, int windows,
                                        double windowSec);

// The first arrival of a's sound in b: where a sound reaches b along
// several paths (a direct one, then louder reflections), the earliest lag,
// within [0, maxLagSec], whose correlation reaches `fraction` of the
// strongest; refined to a fraction of a sample on its own local peak.
struct Arrival {
    double firstMs = 0;      // b hears a's sound this much later, by the first path
    double strongestMs = 0;  // ... and loudest by this path
    double strength = 0;     // the strongest correlation over the median of all lags
};
std::optional<Arrival> firstArrival(const Track& a, const Track& b, double maxLagSec,
                                    double fraction);

struct Dropout {
    double atSec = 0;  // from the start of the recording
    double ms = 0;
};

struct Dropouts {
    size_t runs = 0;
    double longestMs = 0;
    std::vector<Dropout> list;  // every run, so that gaps can be matched across recordings
};

// Runs of exact digital silence on both channels longer than `minMs` between
// the first and the last sound of a recording.
Dropouts findDropouts(const std::vector<float>& left, const std::vector<float>& right, double rate,
                      double minMs);

// A speaker's gap set against the capture it plays from. A capture that fell
// silent (the player or the whole machine stalled) leaves the speakers
// nothing to play, so a speaker may be silent as long as the capture was near
// that moment, plus a little slack; anything beyond is the engine's fault.
struct GapVerdict {
    Dropout gap;             // the speaker's
    double captureMs = 0;    // the longest capture gap near it, 0 if none
    bool excessive = false;  // longer than captureMs + slack
};

// Every gap of `speaker` against the gaps of `capture` that overlap it
// widened by `nearSec` on either side (the speaker plays the capture a
// fraction of a second later; a stall hits both at once). Both lists on one
// time line.
std::vector<GapVerdict> judgeGaps(const std::vector<Dropout>& speaker,
                                  const std::vector<Dropout>& capture, double nearSec,
                                  double slackMs);

}  // namespace vt::syncmeter
