// Smoothed band levels, falling peak marks, a bass level and a kick value
// from a block of recent mono samples: the one analysis behind the
// visualisers and the equaliser's graph. Bands are spaced evenly in log
// frequency from 40 Hz to 16 kHz over a 2048-point transform at 48 kHz.
// Levels run 0 to 1 over a range of 66 dB; they rise with a time constant of
// 0.035 s and fall with one of 0.22 s whatever the frame rate, since every
// step is scaled by the frame's own length.
//
// Construction plans the transform and makes every buffer; analyse()
// allocates nothing. One analyser belongs to one thread at a time.
#pragma once

#include <span>
#include <vector>

#include "spectrum/real_fft.h"

namespace vt::spectrum {

class SpectrumAnalyser {
  public:
    static constexpr int log2n = 11;
    static constexpr int size = 1 << log2n;  // samples per analysis
    static constexpr int bins = size / 2;
    static constexpr float fullScale = 1048576.0f;
    static constexpr double rangeDb = 66.0;
    static constexpr double attackSeconds = 0.035;
    static constexpr double releaseSeconds = 0.22;
    static constexpr int visualiserBands = 48;

    explicit SpectrumAnalyser(int bands = visualiserBands);

    // samples: the newest `size` samples (fewer are padded with silence at
    // the end); dt: seconds since the last analysis. A dt of 0 moves nothing.
    void analyse(std::span<const float> samples, double dt);

    int bands() const { return bands_; }
    std::span<const float> levels() const { return levels_; }
    std::span<const float> peaks() const { return peaks_; }
    float bass() const { return bass_; }
    float kick() const { return kick_; }
    // First transform bin of each band, and the end of the last.
    std::span<const int> edges() const { return edges_; }
    // The same for any band count, without making an analyser.
    static std::vector<int> bandEdges(int bands);
    // Squared magnitude of each bin of the last analysis.
    std::span<const float> power() const { return power_; }

  private:
    int bands_;
    RealFft fft_;
    std::vector<float> window_;
    std::vector<float> power_;
    std::vector<int> edges_;
    std::vector<float> levels_;
    std::vector<float> peaks_;
    std::vector<float> peakFall_;
    float bass_ = 0.0f;
    float kick_ = 0.0f;
};

}  // namespace vt::spectrum
