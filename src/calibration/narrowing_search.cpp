#include "calibration/narrowing_search.h"

#include <algorithm>

namespace vt::calibration {

NarrowingSearch::NarrowingSearch(double aroundMs, double spreadMs, LatencyRange range)
    : low(std::max(aroundMs - spreadMs, range.lowMs)),
      high(std::min(aroundMs + spreadMs, range.highMs)) {}

std::pair<double, double> NarrowingSearch::candidates() const {
    const double quarter = (high - low) / 4.0;
    return {low + quarter, high - quarter};
}

void NarrowingSearch::answer(Choice choice) {
    const double quarter = (high - low) / 4.0;
    const auto [a, b] = candidates();
    const double mid = (a + b) / 2.0;
    ++rounds;
    switch (choice) {
        case Choice::a:
            high = mid;
            break;
        case Choice::b:
            low = mid;
            break;
        case Choice::cannotTell:
            low += quarter / 2.0;
            high -= quarter / 2.0;
            break;
    }
}

bool NarrowingSearch::isResolved() const {
    return high - low <= resolvedWidthMs || rounds >= maximumRounds;
}

}  // namespace vt::calibration
