// The listening comparison: two candidate latencies a quarter in from each
// end of a window; the one that sounded tighter keeps its half. A clear
// answer halves the window, "cannot tell" trims an eighth from each end.
#pragma once

#include <utility>

namespace vt::calibration {

struct LatencyRange {
    double lowMs = 0;
    double highMs = 0;
};

struct NarrowingSearch {
    static constexpr int maximumRounds = 10;
    // Narrower than this, two candidates are no longer told apart by ear.
    static constexpr double resolvedWidthMs = 4.0;

    enum class Choice { a, b, cannotTell };

    double low = 0;
    double high = 0;
    int rounds = 0;

    // The window `spread` either side of `around`, inside `range`.
    NarrowingSearch(double aroundMs, double spreadMs, LatencyRange range);

    std::pair<double, double> candidates() const;
    void answer(Choice choice);
    bool isResolved() const;
    double bestMs() const { return (low + high) / 2.0; }
};

}  // namespace vt::calibration
