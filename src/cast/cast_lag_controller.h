// Steers a Cast TV's lag to a target with its playback rate. Before the lag
// first reaches the target the TV is silent and may be pushed hard; once
// locked it is nudged only, with a dead band wider to start a correction
// (0.25 s) than to end one (0.1 s) so the rate does not flutter. Rates above
// 1 eat the TV's buffer: only a late TV is sped up.
#pragma once

#include <optional>
#include <string_view>

namespace vt::cast {

class CastLagController {
  public:
    struct Decision {
        std::optional<double> rate;  // command this rate
        bool didLock = false;
        std::optional<double> raisedTarget;
    };

    static constexpr double kStartTargetSeconds = 1.0;
    static constexpr double kMaxTargetSeconds = 3.0;
    static constexpr double kStallTargetStepSeconds = 0.5;
    static constexpr double kFastRate = 2.0;
    static constexpr double kRefusedFastRate = 1.5;
    static constexpr double kMinMediaSeconds = 1.0;
    static constexpr int kInBandToLock = 2;

    Decision observe(double lag, double mediaTime, std::string_view playerState);
    // The TV refused the last rate: the rate to try instead, if any.
    std::optional<double> rateRejected();

    double target() const { return target_; }
    bool locked() const { return locked_; }
    bool recovering() const { return recovering_; }
    double rate() const { return rate_; }
    double fastRate() const { return fastRate_; }

  private:
    double target_ = kStartTargetSeconds;
    bool locked_ = false;
    double rate_ = 1.0;
    double fastRate_ = kFastRate;
    bool recovering_ = false;
    int inBand_ = 0;
};

}  // namespace vt::cast
