// How far a Cast TV plays behind what was sent to it, from its status
// answers. A status answer can only come late, never early, and a late one
// makes the lag look smaller; so the honest figure sits near the top of the
// spread, and answers whose round trip was unusually long are not believed.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>

namespace vt::cast {

class CastLagEstimator {
  public:
    struct Sample {
        double time;   // monotonic seconds, the middle of the status request
        double media;  // the TV's currentTime, seconds
    };

    static constexpr size_t kMaxSamples = 60;
    static constexpr size_t kMaxRoundTrips = 30;
    static constexpr size_t kMinSamplesForLag = 16;
    static constexpr size_t kMinRoundTripsToJudge = 6;
    static constexpr double kRoundTripFactor = 3.0;
    static constexpr double kRoundTripFloorSeconds = 0.005;

    // Whether a status round trip of `seconds` is believable; it is kept either way.
    bool noteRTT(double seconds);
    void add(double time, double media);
    // Seconds of stream written beyond what the TV had played, at a high
    // quantile of the samples; nothing below 16 samples. While the TV plays
    // at a `rate` other than 1 the lag moves by (1 - rate) every second, so
    // each sample is carried forward to the newest one's time first: else
    // the quantile would pick the oldest samples and a catch-up would run
    // seconds past its target. The samples must all be from that one rate.
    std::optional<double> lag(double streamStart, double rate = 1.0) const;
    // The TV's clock against ours, for the log only.
    std::optional<double> driftPPM() const;
    std::optional<double> medianRTT() const;
    void reset() { samples_.clear(); }
    size_t count() const { return samples_.size(); }

  private:
    std::deque<Sample> samples_;
    std::deque<double> rtts_;
};

// After a new rate is commanded the estimator starts again and needs eight
// seconds of answers, in which a catch-up at 1.1 moves the lag by most of a
// second and would run past the target. The rate is known, so the lag can
// be carried forward from the last estimate until new ones come; this ends
// corrections in time, while the lock itself waits for measurements.
class CastLagReckoning {
  public:
    void start(double lag, double at, double rate) { from_ = Origin{lag, at, rate}; }
    void clear() { from_.reset(); }
    std::optional<double> at(double time) const {
        if (!from_) return std::nullopt;
        return from_->lag + (1.0 - from_->rate) * (time - from_->at);
    }

  private:
    struct Origin {
        double lag;
        double at;
        double rate;
    };
    std::optional<Origin> from_;
};

}  // namespace vt::cast
