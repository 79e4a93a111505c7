#include "spectrum/spectrum_state.h"

#include <algorithm>

namespace vt::spectrum {

void SpectrumState::prepare(int outputs) {
    outputs = std::max(outputs, 0);
    analysers.reserve(static_cast<std::size_t>(outputs));
    while (static_cast<int>(analysers.size()) < outputs)
        analysers.emplace_back(SpectrumAnalyser::visualiserBands);

    const int rows = outputs * SpectrumAnalyser::visualiserBands;
    if (rows == historyRows) return;
    historyRows = rows;
    const auto cells = static_cast<std::size_t>(rows) * historyColumns;
    history.assign(cells, 0.0f);
    pixels.assign(cells * bytesPerCell, 0);
    newest = 0;
    particles.clear();
}

double SpectrumState::advance(double now) {
    const double dt = lastFrame ? std::max(now - *lastFrame, 0.0) : 0.0;
    lastFrame = now;
    return dt;
}

}  // namespace vt::spectrum
