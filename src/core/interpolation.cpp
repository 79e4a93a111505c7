#include <cmath>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <numbers>

#include "core/interpolation.h"

namespace {

constexpr double kUnityKey = 1.000001;
constexpr double kMaxKernelKey = 64.0;

// Tables live for the whole process so a rendering thread may hold one
// without a lock; only re_kernel_for takes the mutex, on a control thread.
std::mutex re_kernels_lock;
const re_kernel* re_kernels[RE_MAX_KERNELS];
double re_kernel_bases[RE_MAX_KERNELS];
int re_kernel_count = 0;

// Modified Bessel function of the first kind, order 0, from (x/2)^2.
double bessel_i0_from_quarter_square(double q) {
    double sum = 1.0;
    double term = 1.0;
    for (int k = 1; k <= 63; ++k) {
        term *= q / (static_cast<double>(k) * k);
        sum += term;
        if (term < sum * 1e-17) break;
    }
    return sum;
}

}  // namespace

const re_kernel* re_kernel_build(double key) {
    // Nothing plays below 750 Hz; a key past that is a bad value, not a device.
    if (!(key <= kMaxKernelKey)) return nullptr;
    const bool unity = key <= kUnityKey;
    const int half = unity ? 32 : static_cast<int>(std::ceil(key * 64.0));
    const int taps = 2 * half;
    const size_t bytes = static_cast<size_t>(taps) * 2052 + 16;
    void* mem = std::malloc(bytes);
    if (mem == nullptr) return nullptr;
    auto* k = new (mem) re_kernel{half, taps, 0.0};
    double cutoff = RE_RATE * 0.5;
    if (!unity) {
        // Pull the pass band down by half the Kaiser transition width, so that
        // reading faster than the ring rate still respects the output Nyquist.
        cutoff = (RE_RATE / key) * 0.5 +
                 (-82.0 / (std::ceil(key * 64.0) * 28.71415685381071)) * RE_RATE * 0.5;
    }
    k->cutoff_hz = cutoff;

    const double i0_beta = bessel_i0_from_quarter_square(20.25);
    const double norm_cut = cutoff / RE_RATE;
    std::unique_ptr<double[]> row(new (std::nothrow) double[taps]);
    if (!row) {
        std::free(mem);
        return nullptr;
    }
    float* rows = reinterpret_cast<float*>(k + 1);
    for (int p = 0; p <= RE_PHASES; ++p) {
        double sum = 0.0;
        for (int j = 0; j < taps; ++j) {
            const double t = static_cast<double>(j - half + 1) -
                             static_cast<double>(p) / static_cast<double>(RE_PHASES);
            const double r = t / half;
            double w = 0.0;
            if (std::fabs(r) < 1.0) {
                const double arg = 9.0 * std::sqrt(1.0 - r * r);
                w = bessel_i0_from_quarter_square(arg * arg / 4.0) / i0_beta;
            }
            const double x = norm_cut * 2.0 * std::numbers::pi * t;
            const double sinc = std::fabs(x) < 1e-12 ? 1.0 : std::sin(x) / x;
            row[j] = w * (2.0 * norm_cut) * sinc;
            sum += row[j];
        }
        // Every row sums to exactly one, so reading relative to the centre
        // frame equals the plain convolution.
        for (int j = 0; j < taps; ++j) {
            rows[static_cast<size_t>(p) * taps + j] = static_cast<float>(row[j] / sum);
        }
    }
    return k;
}

const re_kernel* re_kernel_for(double ratio) {
    const double key = ratio > kUnityKey ? ratio : 1.0;
    std::lock_guard<std::mutex> lock(re_kernels_lock);
    for (int i = 0; i < re_kernel_count; ++i) {
        if (std::fabs(re_kernel_bases[i] - key) < 1e-9) return re_kernels[i];
    }
    if (re_kernel_count < RE_MAX_KERNELS) {
        if (const re_kernel* k = re_kernel_build(key)) {
            re_kernels[re_kernel_count] = k;
            re_kernel_bases[re_kernel_count] = key;
            ++re_kernel_count;
            return k;
        }
    }
    const re_kernel* best = nullptr;
    double best_dist = 0.0;
    for (int i = 0; i < re_kernel_count; ++i) {
        const double d = std::fabs(re_kernel_bases[i] - key);
        if (best == nullptr || d < best_dist) {
            best = re_kernels[i];
            best_dist = d;
        }
    }
    return best;
}

int re_kernel_cached_count() {
    std::lock_guard<std::mutex> lock(re_kernels_lock);
    return re_kernel_count;
}
