#include "analysis.h"

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

namespace vt::syncmeter {

namespace {

constexpr int kHalfTaps = 32;

double besselI0(double x) {
    double sum = 1, term = 1, q = x * x / 4;
    for (int k = 1; k < 64; ++k) {
        term *= q / (static_cast<double>(k) * k);
        sum += term;
        if (term < sum * 1e-17) break;
    }
    return sum;
}

constexpr int kPhases = 4096;

// Kaiser-windowed sinc kernels at kPhases fractional positions; the nearest
// phase is within 1/8192 of a sample, far below what is measured here.
const std::vector<double>& kernelTable() {
    static const std::vector<double> table = [] {
        std::vector<double> t(static_cast<size_t>((kPhases + 1) * 2 * kHalfTaps));
        const double i0Beta = besselI0(8.6);
        for (int p = 0; p <= kPhases; ++p) {
            double frac = static_cast<double>(p) / kPhases;
            for (int j = 0; j < 2 * kHalfTaps; ++j) {
                double tt = static_cast<double>(j - kHalfTaps + 1) - frac;
                double r = tt / kHalfTaps;
                double w = std::fabs(r) >= 1 ? 0.0 : besselI0(8.6 * std::sqrt(1 - r * r)) / i0Beta;
                double s = std::fabs(tt) < 1e-12
                               ? 1.0
                               : std::sin(std::numbers::pi * tt) / (std::numbers::pi * tt);
                t[static_cast<size_t>(p * 2 * kHalfTaps + j)] = w * s;
            }
        }
        return t;
    }();
    return table;
}

// Band-limited value of a track at a fractional sample position.
double sampleAt(const std::vector<float>& x, double pos) {
    const auto& table = kernelTable();
    long i = static_cast<long>(std::floor(pos));
    int phase = static_cast<int>(std::lround((pos - static_cast<double>(i)) * kPhases));
    const double* k = &table[static_cast<size_t>(phase * 2 * kHalfTaps)];
    double acc = 0;
    for (int j = 0; j < 2 * kHalfTaps; ++j) {
        long n = i - kHalfTaps + 1 + j;
        if (n < 0 || n >= static_cast<long>(x.size())) continue;
        acc += x[static_cast<size_t>(n)] * k[j];
    }
    return acc;
}

}  // namespace

std::vector<float> resampleOnto(const Track& a, const Track& b) {
    const auto& src = *b.samples;
    std::vector<float> out(a.samples->size(), 0.0f);
    const double span = static_cast<double>(src.size());
    for (size_t i = 0; i < out.size(); ++i) {
        double t = a.firstFrameSec + static_cast<double>(i) * periodOf(a);
        double pos = (t - b.firstFrameSec) / periodOf(b);
        if (pos < kHalfTaps || pos > span - kHalfTaps - 1) continue;
        if (std::fabs(pos - std::round(pos)) < 1e-9) {
            out[i] = src[static_cast<size_t>(std::lround(pos))];
        } else {
            out[i] = static_cast<float>(sampleAt(src, pos));
        }
    }
    return out;
}

std::optional<double> bestLag(const std::vector<float>& ref, const std::vector<float>& other,
                              size_t begin, size_t length, long minLag, long maxLag) {
    if (maxLag < minLag + 2) return std::nullopt;
    const long n = static_cast<long>(other.size());
    if (begin + length > ref.size()) return std::nullopt;
    std::vector<double> corr(static_cast<size_t>(maxLag - minLag + 1), 0.0);
    double energyRef = 0;
    for (size_t i = begin; i < begin + length; ++i) energyRef += double(ref[i]) * ref[i];
    if (energyRef <= 0) return std::nullopt;
    for (long lag = minLag; lag <= maxLag; ++lag) {
        long lo = static_cast<long>(begin) + lag;
        long hi = lo + static_cast<long>(length);
        if (lo < 0 || hi > n) return std::nullopt;
        double acc = 0;
        for (size_t i = 0; i < length; ++i) {
            acc += double(ref[begin + i]) * other[static_cast<size_t>(lo) + i];
        }
        corr[static_cast<size_t>(lag - minLag)] = acc;
    }
    size_t best = static_cast<size_t>(std::max_element(corr.begin(), corr.end()) - corr.begin());
    if (best == 0 || best + 1 >= corr.size() || corr[best] <= 0) return std::nullopt;
    // A peak that explains less than half of the sound is no match: another
    // sound, or none, is playing there.
    double energyOther = 0;
    const size_t at =
        static_cast<size_t>(static_cast<long>(begin) + minLag + static_cast<long>(best));
    for (size_t i = 0; i < length; ++i) energyOther += double(other[at + i]) * other[at + i];
    if (corr[best] < 0.5 * std::sqrt(energyRef * energyOther)) return std::nullopt;
    // A parabola through the peak and its neighbours: the correlation of
    // band-limited noise is smooth enough there for a small fraction of a
    // sample.
    double ym = corr[best - 1], y0 = corr[best], yp = corr[best + 1];
    double denom = ym - 2 * y0 + yp;
    double delta = denom != 0 ? 0.5 * (ym - yp) / denom : 0.0;
    return static_cast<double>(minLag) + static_cast<double>(best) + delta;
}

std::optional<long> coarseLag(const std::vector<float>& ref, const std::vector<float>& other,
                              long maxLag) {
    // A few seconds are plenty to find the lag roughly, and keep the
    // transform small.
    size_t n = std::min({ref.size(), other.size(), static_cast<size_t>(8 * maxLag)});
    if (n < 16) return std::nullopt;
    size_t size = 1;
    while (size < 2 * n) size <<= 1;
    std::vector<double> a(size, 0.0), b(size, 0.0);
    std::copy(ref.begin(), ref.begin() + static_cast<long>(n), a.begin());
    std::copy(other.begin(), other.begin() + static_cast<long>(n), b.begin());
    size_t bins = size / 2 + 1;
    auto* fa = fftw_alloc_complex(bins);
    auto* fb = fftw_alloc_complex(bins);
    std::vector<double> corr(size);
    fftw_plan pa = fftw_plan_dft_r2c_1d(static_cast<int>(size), a.data(), fa, FFTW_ESTIMATE);
    fftw_plan pb = fftw_plan_dft_r2c_1d(static_cast<int>(size), b.data(), fb, FFTW_ESTIMATE);
    fftw_execute(pa);
    fftw_execute(pb);
    for (size_t k = 0; k < bins; ++k) {
        // conj(A) * B peaks at the lag where other[i + lag] matches ref[i].
        std::complex<double> x(fa[k][0], -fa[k][1]), y(fb[k][0], fb[k][1]);
        std::complex<double> p = x * y;
        fa[k][0] = p.real();
        fa[k][1] = p.imag();
    }
    fftw_plan pc = fftw_plan_dft_c2r_1d(static_cast<int>(size), fa, corr.data(), FFTW_ESTIMATE);
    fftw_execute(pc);
    fftw_destroy_plan(pa);
    fftw_destroy_plan(pb);
    fftw_destroy_plan(pc);
    fftw_free(fa);
    fftw_free(fb);
    long best = 0;
    double bestValue = -1;
    for (long lag = -maxLag; lag <= maxLag; ++lag) {
        size_t idx = static_cast<size_t>(lag >= 0 ? lag : static_cast<long>(size) + lag);
        if (corr[idx] > bestValue) {
            bestValue = corr[idx];
            best = lag;
        }
    }
    if (bestValue <= 0) return std::nullopt;
    return best;
}

std::vector<OffsetPoint> measureOffsets(const Track& a, const Track& b, int windows,
                                        double windowSec) {
    std::vector<OffsetPoint> points;
    const std::vector<float>& ref = *a.samples;
    if (ref.empty() || b.samples->empty() || windows < 1) return points;
    std::vector<float> other = resampleOnto(a, b);
    // The stretch of a's recording during which b was recording too.
    const double pa = periodOf(a);
    const double bEnd = b.firstFrameSec + static_cast<double>(b.samples->size()) * periodOf(b);
    long from =
        std::max(0L, static_cast<long>(std::ceil((b.firstFrameSec - a.firstFrameSec) / pa)));
    long to = std::min(static_cast<long>(ref.size()),
                       static_cast<long>(std::floor((bEnd - a.firstFrameSec) / pa)));
    const long edge = 64;
    from += edge;
    to -= edge;
    if (to - from < static_cast<long>(a.rate)) return points;

    // Up to a second either way covers any delay plan we test with.
    const long maxLag = static_cast<long>(a.rate);
    std::vector<float> refPart(ref.begin() + from, ref.begin() + to);
    std::vector<float> otherPart(other.begin() + from, other.begin() + to);
    std::optional<long> rough = coarseLag(refPart, otherPart, maxLag);
    if (!rough) return points;
    const long search = static_cast<long>(a.rate * 0.02);  // +-20 ms around it
    const size_t length = static_cast<size_t>(windowSec * a.rate);
    const long margin = std::labs(*rough) + search + 2;
    long first = from + margin, last = to - margin - static_cast<long>(length);
    if (last < first) return points;
    for (int w = 0; w < windows; ++w) {
        long begin = windows == 1 ? first : first + (last - first) * w / (windows - 1);
        auto lag = bestLag(ref, other, static_cast<size_t>(begin), length, *rough - search,
                           *rough + search);
        if (!lag) continue;
        points.push_back({static_cast<double>(begin) * pa, *lag * pa * 1000.0});
    }
    return points;
}

std::optional<Arrival> firstArrival(const Track& a, const Track& b, double maxLagSec,
                                    double fraction) {
    const std::vector<float>& ref = *a.samples;
    if (ref.empty() || b.samples->empty() || !(maxLagSec > 0)) return std::nullopt;
    const std::vector<float> other = resampleOnto(a, b);
    const long maxLag = static_cast<long>(maxLagSec * a.rate);
    const long n = static_cast<long>(ref.size());
    if (n < 2 * maxLag) return std::nullopt;
    size_t size = 1;
    while (size < static_cast<size_t>(n + maxLag)) size <<= 1;
    std::vector<double> x(size, 0.0), y(size, 0.0), corr(size);
    std::copy(ref.begin(), ref.end(), x.begin());
    std::copy(other.begin(), other.end(), y.begin());
    const size_t bins = size / 2 + 1;
    auto* fx = fftw_alloc_complex(bins);
    auto* fy = fftw_alloc_complex(bins);
    fftw_plan px = fftw_plan_dft_r2c_1d(static_cast<int>(size), x.data(), fx, FFTW_ESTIMATE);
    fftw_plan py = fftw_plan_dft_r2c_1d(static_cast<int>(size), y.data(), fy, FFTW_ESTIMATE);
    fftw_execute(px);
    fftw_execute(py);
    for (size_t k = 0; k < bins; ++k) {
        std::complex<double> p =
            std::complex<double>(fx[k][0], -fx[k][1]) * std::complex<double>(fy[k][0], fy[k][1]);
        fx[k][0] = p.real();
        fx[k][1] = p.imag();
    }
    fftw_plan pc = fftw_plan_dft_c2r_1d(static_cast<int>(size), fx, corr.data(), FFTW_ESTIMATE);
    fftw_execute(pc);
    fftw_destroy_plan(px);
    fftw_destroy_plan(py);
    fftw_destroy_plan(pc);
    fftw_free(fx);
    fftw_free(fy);

    corr.resize(static_cast<size_t>(maxLag) + 1);
    const size_t strongest =
        static_cast<size_t>(std::max_element(corr.begin(), corr.end()) - corr.begin());
    if (corr[strongest] <= 0) return std::nullopt;
    std::vector<double> magnitudes(corr.size());
    for (size_t i = 0; i < corr.size(); ++i) magnitudes[i] = std::fabs(corr[i]);
    std::nth_element(magnitudes.begin(), magnitudes.begin() + magnitudes.size() / 2,
                     magnitudes.end());
    const double median = std::max(magnitudes[magnitudes.size() / 2], 1e-30);
    size_t first = 0;
    while (corr[first] < fraction * corr[strongest]) ++first;
    while (first + 1 < corr.size() && corr[first + 1] > corr[first]) ++first;
    // A parabola through the peak and its neighbours, as bestLag does.
    auto refine = [&](size_t i) {
        if (i == 0 || i + 1 >= corr.size()) return static_cast<double>(i);
        const double ym = corr[i - 1], y0 = corr[i], yp = corr[i + 1];
        const double denom = ym - 2 * y0 + yp;
        return static_cast<double>(i) + (denom != 0 ? 0.5 * (ym - yp) / denom : 0.0);
    };
    const double ms = periodOf(a) * 1000.0;
    return Arrival{refine(first) * ms, refine(strongest) * ms, corr[strongest] / median};
}

Dropouts findDropouts(const std::vector<float>& left, const std::vector<float>& right, double rate,
                      double minMs) {
    Dropouts d;
    size_t n = std::min(left.size(), right.size());
    auto silent = [&](size_t i) { return left[i] == 0.0f && right[i] == 0.0f; };
    size_t first = 0;
    while (first < n && silent(first)) ++first;
    size_t last = n;
    while (last > first && silent(last - 1)) --last;
    const double minFrames = minMs * rate / 1000.0;
    size_t run = 0;
    for (size_t i = first; i <= last; ++i) {
        if (i < last && silent(i)) {
            ++run;
            continue;
        }
        if (run > 0 && static_cast<double>(run) > minFrames) {
            ++d.runs;
            const double ms = static_cast<double>(run) * 1000.0 / rate;
            d.longestMs = std::max(d.longestMs, ms);
            d.list.push_back(Dropout{static_cast<double>(i - run) / rate, ms});
        }
        run = 0;
    }
    return d;
}

std::vector<GapVerdict> judgeGaps(const std::vector<Dropout>& speaker,
                                  const std::vector<Dropout>& capture, double nearSec,
                                  double slackMs) {
    std::vector<GapVerdict> verdicts;
    verdicts.reserve(speaker.size());
    for (const Dropout& g : speaker) {
        const double from = g.atSec - nearSec;
        const double to = g.atSec + g.ms / 1000.0 + nearSec;
        double captureMs = 0;
        for (const Dropout& c : capture) {
            if (c.atSec + c.ms / 1000.0 >= from && c.atSec <= to) {
                captureMs = std::max(captureMs, c.ms);
            }
        }
        verdicts.push_back({g, captureMs, g.ms > captureMs + slackMs});
    }
    return verdicts;
}

}  // namespace vt::syncmeter
