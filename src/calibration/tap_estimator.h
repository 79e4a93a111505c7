// How long after each click a person tapped. A person's reaction time is
// steady enough that the median of a dozen taps, compared between two
// speakers, cancels it and leaves the speakers' difference.
#pragma once

#include <optional>
#include <vector>

namespace vt::calibration {

class TapEstimator {
  public:
    // A tap this long after its click answers an earlier one, or none.
    static constexpr double latestTapMs = 400.0;
    // Taps this scattered (median absolute deviation) are guesses.
    static constexpr double settledSpreadMs = 60.0;

    // Both in seconds on one clock. A tap before its click, or more than
    // latestTapMs after it, is dropped.
    void add(double clickAt, double tappedAt);
    int count() const { return static_cast<int>(offsetsMs_.size()); }
    const std::vector<double>& offsetsMs() const { return offsetsMs_; }
    std::optional<double> medianMs() const;
    std::optional<double> spreadMs() const;
    bool settled(int minimumTaps) const;

    // The output's median less the reference's.
    static std::optional<double> latencyMs(const TapEstimator& reference,
                                           const TapEstimator& output);

  private:
    std::vector<double> offsetsMs_;
};

}  // namespace vt::calibration
