// A single level held for a moment, so a meter's mark shows the last peak
// rather than flickering with every reading.
#pragma once

namespace vt::spectrum {

struct PeakHold {
    double value = 0.0;
    double at = 0.0;  // seconds of a steady clock when value was set

    // Takes the level when it reaches the held one or the hold has run out.
    void note(double level, double now, double holdSeconds);
};

}  // namespace vt::spectrum
