// What the visualiser keeps between frames: one analyser for each output,
// the sample buffer they read, the time of the last frame, and the room the
// scrolling and particle styles draw from.
#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <vector>

#include "spectrum/spectrum_analyser.h"

namespace vt::spectrum {

struct Particle {
    double x = 0, y = 0, vx = 0, vy = 0, life = 0, size = 0;
    int layer = 0;
    double pitch = 0;
};

struct SpectrumState {
    static constexpr int historyColumns = 160;  // columns of time in the spectrogram
    static constexpr int bytesPerCell = 4;

    std::vector<SpectrumAnalyser> analysers;
    std::vector<float> samples = std::vector<float>(SpectrumAnalyser::size);
    std::optional<double> lastFrame;  // seconds of a steady clock
    std::vector<float> history;
    int newest = 0;
    std::vector<uint8_t> pixels;
    int historyRows = 0;
    std::vector<Particle> particles;
    std::minstd_rand seed{1};

    // Makes room for that many outputs. Analysers are only ever added, so a
    // row that goes and comes back keeps its smoothing.
    void prepare(int outputs);
    // Seconds since the last frame (0 for the first), and notes this one.
    double advance(double now);
};

}  // namespace vt::spectrum
