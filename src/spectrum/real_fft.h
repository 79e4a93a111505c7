// A forward real transform of fixed size on FFTW, with its buffers. Making
// and destroying plans is not thread-safe in FFTW, so every plan of the
// program is made under one lock; running a plan is lock-free and allocates
// nothing.
#pragma once

#include <complex>
#include <cstddef>
#include <mutex>
#include <span>

namespace vt::spectrum {

// Held while making or destroying any FFTW plan in the program, which FFTW
// does not allow from two threads at once.
std::mutex& fftwPlanLock();

class RealFft {
  public:
    explicit RealFft(std::size_t size);
    ~RealFft();
    RealFft(RealFft&& other) noexcept;
    RealFft& operator=(RealFft&& other) noexcept;
    RealFft(const RealFft&) = delete;
    RealFft& operator=(const RealFft&) = delete;

    std::size_t size() const { return size_; }
    // Fill this, then run(); the input is left unspecified afterwards.
    std::span<float> input() { return {in_, size_}; }
    // size / 2 + 1 bins of the plain (unscaled) discrete Fourier transform.
    std::span<const std::complex<float>> output() const {
        return {reinterpret_cast<const std::complex<float>*>(out_), size_ / 2 + 1};
    }
    void run();

  private:
    void release();

    std::size_t size_ = 0;
    float* in_ = nullptr;
    void* out_ = nullptr;   // fftwf_complex*
    void* plan_ = nullptr;  // fftwf_plan
};

}  // namespace vt::spectrum
