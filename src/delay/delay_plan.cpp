#include "delay/delay_plan.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vt::delay::DelayPlan {
namespace {

double at(std::span<const double> v, std::size_t i) {
    return i < v.size() ? v[i] : 0.0;
}
bool at(const std::vector<bool>& v, std::size_t i) {
    return i < v.size() && v[i];
}

}  // namespace

std::vector<double> engineDelays(std::span<const double> offsets, std::span<const double> latencies,
                                 const std::vector<bool>& counted) {
    const std::size_t n = offsets.size();
    // How early each row would be heard without any delay.
    std::vector<double> x(n);
    for (std::size_t i = 0; i < n; ++i) x[i] = offsets[i] - at(latencies, i);

    double base = std::numeric_limits<double>::infinity();
    for (std::size_t i = 0; i < n; ++i) {
        if (at(counted, i)) base = std::min(base, x[i]);
    }
    if (std::isinf(base)) {
        for (double v : x) base = std::min(base, v);
    }
    std::vector<double> out(n);
    for (std::size_t i = 0; i < n; ++i) out[i] = std::max(x[i] - base, 0.0);
    return out;
}

std::vector<double> engineDelays(std::span<const double> offsets,
                                 std::span<const double> latencies) {
    return engineDelays(offsets, latencies, std::vector<bool>(offsets.size(), true));
}

std::vector<double> engineDelays(std::span<const double> offsets) {
    return engineDelays(offsets, {}, std::vector<bool>(offsets.size(), true));
}

GroupPlan plan(std::span<const double> offsets, std::span<const double> latencies,
               const std::vector<bool>& counted, PlaybackMode mode, bool syncSlow,
               const std::vector<bool>& wasFast) {
    const std::size_t n = offsets.size();
    std::vector<bool> countedRows(n);
    for (std::size_t i = 0; i < n; ++i) countedRows[i] = at(counted, i);

    double quickest = std::numeric_limits<double>::infinity();
    for (std::size_t i = 0; i < n; ++i) {
        if (countedRows[i]) quickest = std::min(quickest, at(latencies, i));
    }
    if (mode == PlaybackMode::together || std::isinf(quickest)) {
        return {engineDelays(offsets, latencies, countedRows), countedRows};
    }

    GroupPlan p{std::vector<double>(n, 0.0), std::vector<bool>(n, false)};
    std::vector<bool> slow(n, false);
    bool anySlow = false;
    for (std::size_t i = 0; i < n; ++i) {
        if (!countedRows[i]) continue;
        const double limit = at(wasFast, i) ? fastLeaveMs : fastJoinMs;
        p.fast[i] = at(latencies, i) - quickest <= limit;
        slow[i] = !p.fast[i];
        anySlow = anySlow || slow[i];
    }
    const std::vector<double> fastDelays = engineDelays(offsets, latencies, p.fast);
    for (std::size_t i = 0; i < n; ++i) {
        if (p.fast[i]) p.delays[i] = fastDelays[i];
    }
    // Without syncing, each slow row plays as soon as it can.
    if (syncSlow && anySlow) {
        const std::vector<double> slowDelays = engineDelays(offsets, latencies, slow);
        for (std::size_t i = 0; i < n; ++i) {
            if (slow[i]) p.delays[i] = slowDelays[i];
        }
    }
    return p;
}

std::vector<double> heardMs(std::span<const double> delays, std::span<const double> latencies) {
    std::vector<double> out(delays.size());
    for (std::size_t i = 0; i < delays.size(); ++i) out[i] = delays[i] + at(latencies, i);
    return out;
}

double earliestDelayMs(std::span<const double> offsets) {
    if (offsets.empty()) return 0.0;
    return *std::min_element(offsets.begin(), offsets.end());
}

long spreadMs(std::span<const double> offsets) {
    if (offsets.empty()) return 0;
    const auto [lo, hi] = std::minmax_element(offsets.begin(), offsets.end());
    return std::lround(*hi - *lo);
}

}  // namespace vt::delay::DelayPlan
