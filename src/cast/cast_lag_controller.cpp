#include "cast/cast_lag_controller.h"

#include <algorithm>

namespace vt::cast {
namespace {

// Catching up at the fast rate is worth it only this many times further
// than the fast rate gains per second.
constexpr double kFastCatchUpFactor = 1.5;
constexpr double kCoarseBandSeconds = 0.1;
constexpr double kSteadyStartSeconds = 0.25;
constexpr double kRecoveryFastSeconds = 0.3;

}  // namespace

CastLagController::Decision CastLagController::observe(double lag, double mediaTime,
                                                       std::string_view playerState) {
    Decision decision;
    if (playerState == "BUFFERING") {
        inBand_ = 0;
        if (locked_ && !recovering_) {
            recovering_ = true;
            const double raised = std::min(target_ + kStallTargetStepSeconds, kMaxTargetSeconds);
            if (raised != target_) {
                target_ = raised;
                decision.raisedTarget = raised;
            }
        }
        return decision;
    }
    if (playerState != "PLAYING" || mediaTime < kMinMediaSeconds) return decision;

    const double e = lag - target_;
    double wanted = 1.0;
    if (!locked_) {
        if (e > (fastRate_ - 1.0) * kFastCatchUpFactor) {
            inBand_ = 0;
            wanted = fastRate_;
        } else if (e > kCoarseBandSeconds) {
            inBand_ = 0;
            wanted = 1.1;
        } else if (e < -kCoarseBandSeconds) {
            inBand_ = 0;
            wanted = 0.95;
        } else if (++inBand_ >= kInBandToLock) {
            locked_ = true;
            decision.didLock = true;
            if (rate_ != 1.0) {
                rate_ = 1.0;
                decision.rate = 1.0;
            }
            return decision;
        }
    } else if (recovering_) {
        if (e > kRecoveryFastSeconds) {
            wanted = 1.25;
        } else if (e > kCoarseBandSeconds) {
            wanted = 1.05;
        } else if (e < -kCoarseBandSeconds) {
            wanted = 0.98;
        } else {
            recovering_ = false;
        }
    } else if (rate_ != 1.0) {
        if (e < -kCoarseBandSeconds || e > kCoarseBandSeconds) wanted = e > 0 ? 1.02 : 0.98;
    } else {
        if (e > kSteadyStartSeconds) wanted = 1.02;
        if (e < -kSteadyStartSeconds) wanted = 0.98;
    }
    if (wanted == rate_) return decision;
    rate_ = wanted;
    decision.rate = wanted;
    return decision;
}

std::optional<double> CastLagController::rateRejected() {
    if (fastRate_ == kFastRate) {
        fastRate_ = kRefusedFastRate;
        rate_ = kRefusedFastRate;
        return kRefusedFastRate;
    }
    rate_ = 1.0;
    return std::nullopt;
}

}  // namespace vt::cast
