// The offset between two machines' clocks from round-trip samples. Only the
// quickest quarter of exchanges is believed: their two legs were most nearly
// equal, so their midpoints are the least biased.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

namespace vt::sendspin {

struct ClockSample {
    double sent = 0;      // phone clock when the request left
    double macTime = 0;   // host clock when it answered
    double received = 0;  // phone clock when the answer came

    double rtt() const { return received - sent; }
    double offset() const { return macTime - (sent + received) / 2; }
};

class ClockSync {
  public:
    ClockSync() = default;
    explicit ClockSync(size_t window);

    void add(const ClockSample& sample);
    std::optional<double> offset() const;
    std::optional<double> bestRTT() const;
    std::optional<double> toMac(double t) const;
    std::optional<double> toPhone(double t) const;
    size_t count() const { return samples_.size(); }

  private:
    std::vector<ClockSample> samples_;
    std::optional<size_t> window_;
};

}  // namespace vt::sendspin
