// The live spectrum behind the equaliser's graph: 64 bands on the same
// logarithmic frequency axis as the response curve, from 40 Hz to 16 kHz.
//
//   EQAnalyser analyser;
//   engine.fillRecentSamples(analyser.scratch(), 0.0);   // each frame
//   analyser.run(secondsNow);
//   for (int i = 0; i < EQAnalyser::bandCount; ++i)
//       plot(EQAnalyser::bandCentreHz(i), EQAnalyser::levelDb(analyser.levels()[i]));
//
// The analyser itself is made on the first run, so a sheet that is never
// opened costs nothing. Main thread only.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "spectrum/spectrum_analyser.h"

namespace vt::spectrum {

class EQAnalyser {
  public:
    static constexpr int bandCount = 64;
    static constexpr double lowHz = 40.0;
    static constexpr double highHz = 16000.0;

    EQAnalyser();
    ~EQAnalyser();

    // The newest samples of the row go here before each run.
    std::span<float> scratch() { return scratch_; }
    // Analyses the scratch. now: seconds of any steady clock; the first run
    // only primes the clock, later ones move by the time between runs.
    void run(double now);
    // Levels 0..1 of each band, low to high; all 0 before the first run.
    std::span<const float> levels() const;
    std::span<const float> peaks() const;

    // Where band i sits on the graph's frequency axis: the geometric middle
    // of its nominal edges, and the edges themselves.
    static double bandLowHz(int band);
    static double bandHighHz(int band) { return bandLowHz(band + 1); }
    static double bandCentreHz(int band);
    // A level in decibels below full scale: 0 at the top, -66 at the floor.
    static double levelDb(float level) {
        return (static_cast<double>(level) - 1.0) * SpectrumAnalyser::rangeDb;
    }

  private:
    std::unique_ptr<SpectrumAnalyser> analyser_;
    std::vector<float> scratch_;
    std::optional<double> last_;
};

}  // namespace vt::spectrum
