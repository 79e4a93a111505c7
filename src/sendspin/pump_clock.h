// The pump's sense of time. The real one is CLOCK_MONOTONIC; tests pass a
// virtual one whose sleeps only move the hands, so ten minutes run in a moment.
#pragma once

#include <cstdint>

namespace vt::sendspin {

class PumpClock {
  public:
    virtual ~PumpClock() = default;
    virtual double nowSeconds() = 0;
    virtual int64_t nowUs() = 0;
    virtual void sleepFor(double seconds) = 0;
};

class MonotonicPumpClock final : public PumpClock {
  public:
    double nowSeconds() override;
    int64_t nowUs() override;
    void sleepFor(double seconds) override;
};

}  // namespace vt::sendspin
