#include "cast/cast_latency_publisher.h"

#include <cmath>

namespace vt::cast {

std::optional<double> CastLatencyPublisher::offer(double lag, double at, bool force) {
    if (!force) {
        if (published_ && std::fabs(lag - *published_) <= kMinChangeSeconds) return std::nullopt;
        if (at - publishedAt_ < kMinIntervalSeconds) return std::nullopt;
    }
    published_ = lag;
    publishedAt_ = at;
    return lag;
}

}  // namespace vt::cast
