// The model's side of measuring how late a row is: the calibration is its
// own object, opened on one row against a reference; the model owns it, lends
// it the rows through a narrow host, and drops it once it has ended.
#include <cmath>

#include "model/app_model.h"

namespace vt::model {

using calibration::CalibrationRow;
using settings::LatencySource;

class AppModel::CalibrationRows final : public calibration::CalibrationHost {
  public:
    explicit CalibrationRows(AppModel& model) : model_(model) {}

    int rowCount() const override { return int(model_.rows_.size()); }
    std::optional<int> slotOf(calibration::RowKey key) const override {
        const int slot = model_.slotOf(key);
        if (slot < 0) return std::nullopt;
        return slot;
    }
    CalibrationRow row(int slot) const override {
        const RowState& r = model_.rows_[slot];
        const double believed = model_.plannedLatencyMs(r);
        return {r.isAirPlay() || r.isCast() || r.isGuest(),
                r.measuredLatencyMs,
                r.latencySource,
                r.delayMs,
                model_.reportedLatency(slot),
                {model_.engineDelayMs(slot), believed, believed - r.measuredLatencyMs},
                model_.engine_->telemetry(slot).fillErrMs};
    }
    void setMeasuredLatency(int slot, double ms, LatencySource source) override {
        model_.setMeasuredLatency(slot, ms, source);
    }
    void setDelay(int slot, double ms) override { model_.setDelay(slot, ms); }
    void setMutedWithoutRemembering(int slot, bool muted) override {
        model_.setMutedWithoutRemembering(slot, muted);
    }
    void beginForcedMutes(const void* holder) override { model_.beginForcedMutes(holder); }
    void endForcedMutes(const void* holder) override { model_.endForcedMutes(holder); }

  private:
    AppModel& model_;
};

void AppModel::enableCalibration(calibration::Microphone& microphone,
                                 calibration::ToneOutput& tones) {
    microphone_ = &microphone;
    toneOutput_ = &tones;
}

bool AppModel::audible(const RowState& row) const {
    return row.counted() && !mutedToStore(row) && row.volume > 0;
}

bool AppModel::canCalibrate(int slot) const {
    if (!isRunning_ || validSlot(slot) < 0) return false;
    if (!audible(rows_[slot])) return false;
    for (int s = 0; s < int(rows_.size()); ++s)
        if (s != slot && audible(rows_[s])) return true;
    return false;
}

std::optional<int> AppModel::calibrationReference(int slot) const {
    for (int s = 0; s < int(rows_.size()); ++s)
        if (s != slot && audible(rows_[s])) return s;
    return std::nullopt;
}

calibration::Calibrator* AppModel::beginCalibration(int slot, int referenceSlot) {
    if (!canCalibrate(slot) || referenceSlot == slot || validSlot(referenceSlot) < 0 ||
        !audible(rows_[referenceSlot]))
        return nullptr;
    endCalibration();
    if (!calibrationRows_) calibrationRows_ = std::make_unique<CalibrationRows>(*this);
    calibrator_ = std::make_unique<calibration::Calibrator>(*calibrationRows_, main_, *microphone_,
                                                            *toneOutput_, rows_[slot].id,
                                                            rows_[referenceSlot].id);
    calibrator_->onChanged = [this] { stateChanged(); };
    stateChanged();
    return calibrator_.get();
}

calibration::Calibrator* AppModel::calibrator() {
    // An ended one lingers until the next begins: it may be ending right
    // now, inside its own call.
    return calibrator_ && !calibrator_->ended() ? calibrator_.get() : nullptr;
}

void AppModel::endCalibration() {
    if (!calibrator_) return;
    calibrator_->cancel();
    calibrator_.reset();
    stateChanged();
}

void AppModel::setMeasuredLatency(int slot, double ms, LatencySource source) {
    if (validSlot(slot) < 0 || !std::isfinite(ms)) return;
    RowState& row = rows_[slot];
    const calibration::LatencyRange range =
        calibration::latencyRange(row.isAirPlay() || row.isCast() || row.isGuest());
    row.measuredLatencyMs = std::clamp(ms, range.lowMs, range.highMs);
    row.latencySource = source;
    pushDelays();
    persist(slot);
}

bool AppModel::showsMeasureHint(int slot) const {
    if (!isRunning_ || validSlot(slot) < 0) return false;
    const RowState& row = rows_[slot];
    const auto key = row.memoryKey();
    if (row.disabled || !key || settings_.measureHintDismissed(*key)) return false;
    const auto device = deviceOf(row);
    if (!device || device->transportLabel() != "Bluetooth") return false;
    // A person's measurement already answers what the hint offers.
    return canCalibrate(slot) && (row.latencySource == LatencySource::none ||
                                  row.latencySource == LatencySource::reported);
}

void AppModel::dismissMeasureHint(int slot) {
    if (validSlot(slot) < 0) return;
    if (const auto key = rows_[slot].memoryKey()) settings_.dismissMeasureHint(*key);
    stateChanged();
}

double AppModel::engineDelayMs(int slot) const {
    if (validSlot(slot) < 0 || slot >= int(engineDelays_.size())) return 0;
    return engineDelays_[size_t(slot)];
}

}  // namespace vt::model
