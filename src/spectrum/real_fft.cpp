#include "spectrum/real_fft.h"

#include <fftw3.h>

#include <mutex>
#include <new>
#include <stdexcept>
#include <utility>

namespace vt::spectrum {

std::mutex& fftwPlanLock() {
    static std::mutex lock;
    return lock;
}

RealFft::RealFft(std::size_t size) : size_(size) {
    if (size < 2 || size % 2 != 0) throw std::invalid_argument("transform size must be even");
    in_ = fftwf_alloc_real(size);
    fftwf_complex* out = fftwf_alloc_complex(size / 2 + 1);
    out_ = out;
    if (in_ == nullptr || out == nullptr) {
        release();
        throw std::bad_alloc();
    }
    {
        // FFTW_ESTIMATE leaves the arrays alone while planning and plans in
        // microseconds, so a window can make analysers as it goes.
        std::lock_guard guard(fftwPlanLock());
        plan_ = fftwf_plan_dft_r2c_1d(static_cast<int>(size), in_, out, FFTW_ESTIMATE);
    }
    if (plan_ == nullptr) {
        release();
        throw std::runtime_error("FFTW could not plan the transform");
    }
}

RealFft::~RealFft() {
    release();
}

RealFft::RealFft(RealFft&& other) noexcept
    : size_(std::exchange(other.size_, 0)),
      in_(std::exchange(other.in_, nullptr)),
      out_(std::exchange(other.out_, nullptr)),
      plan_(std::exchange(other.plan_, nullptr)) {}

RealFft& RealFft::operator=(RealFft&& other) noexcept {
    if (this != &other) {
        release();
        size_ = std::exchange(other.size_, 0);
        in_ = std::exchange(other.in_, nullptr);
        out_ = std::exchange(other.out_, nullptr);
        plan_ = std::exchange(other.plan_, nullptr);
    }
    return *this;
}

void RealFft::run() {
    fftwf_execute(static_cast<fftwf_plan>(plan_));
}

void RealFft::release() {
    if (plan_ != nullptr) {
        std::lock_guard guard(fftwPlanLock());
        fftwf_destroy_plan(static_cast<fftwf_plan>(plan_));
        plan_ = nullptr;
    }
    fftwf_free(in_);
    fftwf_free(out_);
    in_ = nullptr;
    out_ = nullptr;
}

}  // namespace vt::spectrum
