#include "resampler_snr.h"

#include <cmath>
#include <numbers>
#include <vector>

#include "core/ring_engine.h"

namespace {

// Least-squares fit of a*sin + b*cos + dc at a known angular step; returns
// the power of the fitted sine and of what is left.
struct fit_result {
    double signal_power;
    double residual_power;
};

fit_result fit_sine(const std::vector<double>& x, double omega) {
    // Normal equations for the three unknowns, solved by Cramer's rule.
    double ss = 0, sc = 0, s1 = 0, cc = 0, c1 = 0, n = 0, xs = 0, xc = 0, x1 = 0;
    for (size_t k = 0; k < x.size(); ++k) {
        const double s = std::sin(omega * static_cast<double>(k));
        const double c = std::cos(omega * static_cast<double>(k));
        ss += s * s;
        sc += s * c;
        s1 += s;
        cc += c * c;
        c1 += c;
        n += 1;
        xs += x[k] * s;
        xc += x[k] * c;
        x1 += x[k];
    }
    auto det3 = [](double a, double b, double c, double d, double e, double f, double g, double h,
                   double i) {
        return a * (e * i - f * h) - b * (d * i - f * g) + c * (d * h - e * g);
    };
    const double d = det3(ss, sc, s1, sc, cc, c1, s1, c1, n);
    const double a = det3(xs, sc, s1, xc, cc, c1, x1, c1, n) / d;
    const double b = det3(ss, xs, s1, sc, xc, c1, s1, x1, n) / d;
    const double dc = det3(ss, sc, xs, sc, cc, xc, s1, c1, x1) / d;
    double residual = 0;
    for (size_t k = 0; k < x.size(); ++k) {
        const double s = std::sin(omega * static_cast<double>(k));
        const double c = std::cos(omega * static_cast<double>(k));
        const double r = x[k] - (a * s + b * c + dc);
        residual += r * r;
    }
    return {(a * a + b * b) / 2.0, residual / static_cast<double>(x.size())};
}

}  // namespace

double measure_snr_db(double ratio, uint32_t block) {
    constexpr int32_t kSlot = 0;
    constexpr double kFreq = 1000.0;
    const double amplitude = std::pow(10.0, -1.0 / 20.0);
    const auto ring_per_block = static_cast<uint32_t>(std::lround(block * ratio));

    re_engine* e = re_engine_create();
    if (e == nullptr) return 0.0;
    re_engine_set_base_ratio(e, kSlot, ratio);
    re_engine_set_gain(e, kSlot, 1.0f);

    uint64_t written = 0;
    std::vector<float> chunk;
    auto write = [&](uint32_t frames) {
        chunk.resize(2 * frames);
        for (uint32_t f = 0; f < frames; ++f) {
            const double t = static_cast<double>(written + f) / RE_RATE;
            const auto v =
                static_cast<float>(amplitude * std::sin(2.0 * std::numbers::pi * kFreq * t));
            chunk[2 * f] = v;
            chunk[2 * f + 1] = v;
        }
        re_engine_write(e, chunk.data(), frames);
        written += frames;
    };
    write(8192);

    // Settle: lock, let the gain ramp finish and the rate loop rest.
    std::vector<float> out(2 * block);
    for (int i = 0; i < 200; ++i) {
        write(ring_per_block);
        re_engine_render(e, kSlot, out.data(), block);
    }

    const size_t blocks = 44100 / block + 1;
    std::vector<double> left;
    std::vector<double> right;
    for (size_t i = 0; i < blocks; ++i) {
        write(ring_per_block);
        re_engine_render(e, kSlot, out.data(), block);
        for (uint32_t f = 0; f < block; ++f) {
            left.push_back(out[2 * f]);
            right.push_back(out[2 * f + 1]);
        }
    }
    re_engine_destroy(e);

    const double omega = 2.0 * std::numbers::pi * kFreq * ratio / RE_RATE;
    const fit_result l = fit_sine(left, omega);
    const fit_result r = fit_sine(right, omega);
    const double signal = l.signal_power + r.signal_power;
    const double noise = l.residual_power + r.residual_power;
    if (noise <= 0.0) return 200.0;
    return 10.0 * std::log10(signal / noise);
}
