#include "sendspin/clock_sync.h"

#include <algorithm>

namespace vt::sendspin {

ClockSync::ClockSync(size_t window) : window_(std::max<size_t>(window, 4)) {}

void ClockSync::add(const ClockSample& sample) {
    if (!(sample.rtt() >= 0)) return;
    samples_.push_back(sample);
    if (window_ && samples_.size() > *window_) {
        samples_.erase(samples_.begin(),
                       samples_.begin() + static_cast<std::ptrdiff_t>(samples_.size() - *window_));
    }
}

std::optional<double> ClockSync::offset() const {
    if (samples_.size() < 4) return std::nullopt;
    std::vector<ClockSample> sorted = samples_;
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const ClockSample& a, const ClockSample& b) { return a.rtt() < b.rtt(); });
    const size_t best = sorted.size() / 4;
    double sum = 0;
    for (size_t i = 0; i < best; ++i) sum += sorted[i].offset();
    return sum / static_cast<double>(best);
}

std::optional<double> ClockSync::bestRTT() const {
    if (samples_.empty()) return std::nullopt;
    double best = samples_.front().rtt();
    for (const auto& s : samples_) best = std::min(best, s.rtt());
    return best;
}

std::optional<double> ClockSync::toMac(double t) const {
    const auto o = offset();
    if (!o) return std::nullopt;
    return t + *o;
}

std::optional<double> ClockSync::toPhone(double t) const {
    const auto o = offset();
    if (!o) return std::nullopt;
    return t - *o;
}

}  // namespace vt::sendspin
