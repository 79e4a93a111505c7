// Hands a Cast TV's measured lag to the delay plan only when it has really
// moved (more than 5 ms) and not more often than every 2 s, so the other
// outputs are not pulled about by the measurement's own noise.
#pragma once

#include <optional>

namespace vt::cast {

class CastLatencyPublisher {
  public:
    static constexpr double kMinChangeSeconds = 0.005;
    static constexpr double kMinIntervalSeconds = 2.0;

    // The value to publish now, or nothing; `force` publishes whatever it is.
    std::optional<double> offer(double lag, double at, bool force);
    // A value published by other means (a raised target, a new stream).
    void set(double value, double at) {
        published_ = value;
        publishedAt_ = at;
    }
    std::optional<double> published() const { return published_; }

  private:
    std::optional<double> published_;
    double publishedAt_ = 0;
};

}  // namespace vt::cast
