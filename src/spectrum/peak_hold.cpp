#include "spectrum/peak_hold.h"

namespace vt::spectrum {

void PeakHold::note(double level, double now, double holdSeconds) {
    if (level >= value || now - at >= holdSeconds) {
        value = level;
        at = now;
    }
}

}  // namespace vt::spectrum
