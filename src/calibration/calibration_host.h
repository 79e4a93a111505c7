// What a calibration needs of the program's rows, and nothing more: the
// application model gives it through a small adapter, and tests give a fake.
#pragma once

#include <cstdint>
#include <optional>

#include "calibration/heard_difference.h"
#include "settings/latency_source.h"

namespace vt::calibration {

// A row's identity, lasting while rows move.
using RowKey = uint64_t;

struct CalibrationRow {
    bool networkOutput = false;  // AirPlay, Cast or a guest's phone
    double measuredLatencyMs = 0;
    settings::LatencySource latencySource = settings::LatencySource::none;
    double delayMs = 0;  // the user's offset
    // What the device says of its own latency, beyond what the stream's
    // timing already tells the engine.
    double reportedLatencyMs = 0;
    RowTiming timing;
    // How far the engine's output stands, now, from where its delays put
    // it: when a stream's clock finds it was off, the output glides back
    // over a second or more, and a sweep played meanwhile is heard that
    // much early or late.
    double engineOffMs = 0;
};

class CalibrationHost {
  public:
    virtual ~CalibrationHost() = default;
    virtual int rowCount() const = 0;
    // Nothing once the row is gone.
    virtual std::optional<int> slotOf(RowKey key) const = 0;
    virtual CalibrationRow row(int slot) const = 0;
    // Clamped to the row's range, pushed to the delays and kept.
    virtual void setMeasuredLatency(int slot, double ms, settings::LatencySource source) = 0;
    virtual void setDelay(int slot, double ms) = 0;
    // Silences a row in the engine only; the stored state keeps its mute.
    virtual void setMutedWithoutRemembering(int slot, bool muted) = 0;
    virtual void beginForcedMutes(const void* holder) = 0;
    virtual void endForcedMutes(const void* holder) = 0;
};

}  // namespace vt::calibration
