#include "clock_fit.h"

#include <algorithm>
#include <cmath>

namespace vt::syncmeter {

namespace {

ClockLine leastSquares(const std::vector<ClockPoint>& pts) {
    ClockLine line;
    double n = static_cast<double>(pts.size());
    double mx = 0, my = 0;
    for (const auto& p : pts) {
        mx += p.positionSec;
        my += p.startSec;
    }
    mx /= n;
    my /= n;
    double sxx = 0, sxy = 0;
    for (const auto& p : pts) {
        sxx += (p.positionSec - mx) * (p.positionSec - mx);
        sxy += (p.positionSec - mx) * (p.startSec - my);
    }
    line.slope = sxx > 0 ? sxy / sxx : 0.0;
    line.startSec = my - line.slope * mx;
    line.used = pts.size();
    return line;
}

std::vector<double> residuals(const std::vector<ClockPoint>& pts, const ClockLine& line) {
    std::vector<double> r;
    r.reserve(pts.size());
    for (const auto& p : pts)
        r.push_back(p.startSec - (line.startSec + line.slope * p.positionSec));
    return r;
}

double iqr(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() * 3 / 4] - v[v.size() / 4];
}

}  // namespace

ClockLine fitClock(const std::vector<ClockPoint>& points) {
    if (points.size() < 2) {
        ClockLine line;
        if (!points.empty()) line.startSec = points[0].startSec;
        line.used = points.size();
        return line;
    }
    ClockLine first = leastSquares(points);
    std::vector<double> r = residuals(points, first);
    std::vector<double> sorted = r;
    std::sort(sorted.begin(), sorted.end());
    double mid = sorted[sorted.size() / 2];
    double limit = 3 * iqr(r) + 1e-6;
    std::vector<ClockPoint> kept;
    for (size_t i = 0; i < points.size(); ++i) {
        if (std::fabs(r[i] - mid) <= limit) kept.push_back(points[i]);
    }
    ClockLine line = kept.size() >= 2 ? leastSquares(kept) : first;
    // Positions count from the stream's start, where the line now says
    // position 0 played; with slope s, position p played at start + p(1 + s).
    line.spreadMs = iqr(residuals(kept.size() >= 2 ? kept : points, line)) * 1000.0;
    return line;
}

}  // namespace vt::syncmeter
