#include "platform/pulse/stream_clock.h"

#include <time.h>

#include <algorithm>
#include <cmath>

namespace vt::platform::pulse {

void StreamClock::addSnapshot(double hostSec, double positionSec) {
    samples_[total_ % kCapacity] = Point{positionSec, hostSec - positionSec};
    ++total_;
    if (total_ - start_ > kCapacity) start_ = total_ - kCapacity;
    lastPosition_ = positionSec;
    refit();
}

bool StreamClock::groupPoint(uint64_t g, size_t needed, Point& out) const {
    const uint64_t from = std::max(g * kGroup, start_);
    const uint64_t to = std::min((g + 1) * kGroup, total_);
    if (to <= from || to - from < needed) return false;
    std::array<Point, kGroup> group;
    size_t n = 0;
    for (uint64_t i = from; i < to; ++i) group[n++] = samples_[i % kCapacity];
    std::partial_sort(group.begin(), group.begin() + kEarliest, group.begin() + n,
                      [](const Point& a, const Point& b) { return a.offset < b.offset; });
    out = Point{};
    for (size_t i = 0; i < kEarliest; ++i) {
        out.position += group[i].position;
        out.offset += group[i].offset;
    }
    out.position /= kEarliest;
    out.offset /= kEarliest;
    return true;
}

void StreamClock::fit(const Point* pts, size_t n, double& intercept, double& slope, double& pivot) {
    double mp = 0, mo = 0;
    for (size_t i = 0; i < n; ++i) {
        mp += pts[i].position;
        mo += pts[i].offset;
    }
    mp /= static_cast<double>(n);
    mo /= static_cast<double>(n);
    double spp = 0, spo = 0;
    for (size_t i = 0; i < n; ++i) {
        spp += (pts[i].position - mp) * (pts[i].position - mp);
        spo += (pts[i].position - mp) * (pts[i].offset - mo);
    }
    slope = spp > 1e-9 ? std::clamp(spo / spp, -kMaxDrift, kMaxDrift) : 0.0;
    intercept = mo;
    pivot = mp;
}

bool StreamClock::lowerEdge(const Point* pts, size_t n, double& intercept, double& slope,
                            double& pivot) {
    // Of the lines through two points that pass under every point, the one
    // closest to all of them (least summed height above it).
    bool found = false;
    double best = 0;
    for (size_t i = 0; i < n; ++i) {
        for (size_t j = i + 1; j < n; ++j) {
            const double dp = pts[j].position - pts[i].position;
            if (!(std::fabs(dp) > 1e-9)) continue;
            const double b = (pts[j].offset - pts[i].offset) / dp;
            if (std::fabs(b) > kMaxDrift) continue;
            double sum = 0;
            bool under = true;
            for (size_t k = 0; k < n && under; ++k) {
                const double above =
                    pts[k].offset - (pts[i].offset + b * (pts[k].position - pts[i].position));
                if (above < -1e-9) under = false;
                sum += above;
            }
            if (under && (!found || sum < best)) {
                found = true;
                best = sum;
                slope = b;
                pivot = pts[i].position;
                intercept = pts[i].offset;
            }
        }
    }
    return found;
}

void StreamClock::fitOnTime(const Point* pts, size_t n, double& intercept, double& slope,
                            double& pivot) {
    // Snapshots are late, never early: a group point well above the lowest
    // line under all of them is a group without an on-time answer. Leave
    // those out and draw the line through the rest.
    std::array<Point, kGroups + 1> kept;
    size_t k = 0;
    double a, b, p;
    if (n >= 3 && lowerEdge(pts, n, a, b, p)) {
        for (size_t i = 0; i < n; ++i) {
            if (pts[i].offset - (a + b * (pts[i].position - p)) <= kLateSec) kept[k++] = pts[i];
        }
    } else {
        for (size_t i = 0; i < n; ++i) kept[k++] = pts[i];
    }
    fit(kept.data(), k, intercept, slope, pivot);
}

void StreamClock::refit() {
    const uint64_t last = (total_ - 1) / kGroup;
    const bool lastFull = total_ % kGroup == 0;
    // Only whole groups make points: a group's earliest few are then likely
    // to be on time, where a half-filled group after a busy moment would pull
    // the line. A first line, with nothing else to go on, is drawn from the
    // group that is filling.
    std::array<Point, kGroups + 1> pts;
    size_t n = 0;
    const uint64_t newestFull = lastFull ? last : last - (last > 0 ? 1 : 0);
    if (lastFull || last > 0) {
        const uint64_t first = newestFull >= kGroups ? newestFull - kGroups + 1 : 0;
        for (uint64_t g = first; g <= newestFull; ++g)
            if (groupPoint(g, kGroup, pts[n])) ++n;
    }
    if (n == 0) {
        if (valid_ || !groupPoint(last, kEarliest, pts[n])) return;
        ++n;
    }

    // A newly completed group far off the line of the older ones means the
    // server re-anchored the stream: start again from the groups past the
    // jump. Answers are never early, so a group well below the line is a
    // jump at once. One well above may just have had no answer on time, and
    // a starved server answers late for seconds on end: a line that took
    // that up would move every output on it by as much, and the lateness it
    // seems to show would stay in the slot for good. So a later line takes
    // kLaterGroups (two seconds) that all sit above the older ones.
    if (lastFull && n >= 2) {
        const size_t suspects = std::min(lateGroups_, n - 2);
        double a, b, pivot;
        fitOnTime(pts.data(), n - 1 - suspects, a, b, pivot);
        const Point& newest = pts[n - 1];
        const double off = newest.offset - (a + b * (newest.position - pivot));
        lateGroups_ = off > kStepSec ? lateGroups_ + 1 : 0;
        if (off < -kStepSec || lateGroups_ >= kLaterGroups) {
            const uint64_t keepFrom = off < -kStepSec ? last : last + 1 - lateGroups_;
            start_ = std::max(start_, keepFrom * kGroup);
            n = 0;
            for (uint64_t g = keepFrom; g <= last; ++g)
                if (groupPoint(g, kGroup, pts[n])) ++n;
            lateGroups_ = 0;
        }
    }
    fitOnTime(pts.data(), n, intercept_, slope_, pivot_);
    valid_ = true;
}

namespace {

double seconds(const timespec& ts) {
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

}  // namespace

double wallMinusMonotonic() {
    double best = 0, bestSpan = 1e9;
    for (int i = 0; i < 3; ++i) {
        timespec a{}, w{}, b{};
        clock_gettime(CLOCK_MONOTONIC, &a);
        clock_gettime(CLOCK_REALTIME, &w);
        clock_gettime(CLOCK_MONOTONIC, &b);
        double span = seconds(b) - seconds(a);
        if (span < bestSpan) {
            bestSpan = span;
            best = seconds(w) - (seconds(a) + seconds(b)) / 2;
        }
    }
    return best;
}

double monotonicOfWall(const timeval& wall) {
    double w = static_cast<double>(wall.tv_sec) + static_cast<double>(wall.tv_usec) * 1e-6;
    return w - wallMinusMonotonic();
}

}  // namespace vt::platform::pulse
