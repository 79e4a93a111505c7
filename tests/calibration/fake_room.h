// A scripted room for the calibrator: rows with a true lateness the model
// does not know, a test-sound player into the engine, and a microphone that
// hears every unmuted row's copy of each sound at its true time, with a
// reflection and noise. All on the virtual clock.
#pragma once

#include <cmath>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "calibration/calibration_host.h"
#include "calibration/mic_capture.h"
#include "calibration/tone_player.h"
#include "dispatch/virtual_main_queue.h"

namespace vt::calibration::testing {

struct FakeRow {
    RowKey key = 0;
    bool network = false;
    double measuredMs = 0;
    settings::LatencySource source = settings::LatencySource::none;
    double delayMs = 0;
    double reportedMs = 0;
    double engineDelayMs = 0;
    double trueLatencyMs = 0;  // from the engine's output to the air
    bool muted = false;        // in the engine
    double engineOffMs = 0;    // how far the engine stands from its own plan
};

class FakeHost : public CalibrationHost {
  public:
    std::vector<FakeRow> rows;
    std::set<const void*> forcedHolders;
    std::map<size_t, bool> mutedBeforeForcing;

    int rowCount() const override { return int(rows.size()); }
    std::optional<int> slotOf(RowKey key) const override {
        for (size_t i = 0; i < rows.size(); ++i)
            if (rows[i].key == key) return int(i);
        return std::nullopt;
    }
    CalibrationRow row(int slot) const override {
        const FakeRow& r = rows[size_t(slot)];
        return {r.network,    r.measuredMs,
                r.source,     r.delayMs,
                r.reportedMs, RowTiming{r.engineDelayMs, r.reportedMs + r.measuredMs, r.reportedMs},
                r.engineOffMs};
    }
    void setMeasuredLatency(int slot, double ms, settings::LatencySource source) override {
        rows[size_t(slot)].measuredMs = ms;
        rows[size_t(slot)].source = source;
    }
    void setDelay(int slot, double ms) override { rows[size_t(slot)].delayMs = ms; }
    void setMutedWithoutRemembering(int slot, bool muted) override {
        rows[size_t(slot)].muted = muted;
    }
    void beginForcedMutes(const void* holder) override {
        if (forcedHolders.empty())
            for (size_t i = 0; i < rows.size(); ++i) mutedBeforeForcing[i] = rows[i].muted;
        forcedHolders.insert(holder);
    }
    void endForcedMutes(const void* holder) override {
        if (!forcedHolders.erase(holder) || !forcedHolders.empty()) return;
        for (auto [i, muted] : mutedBeforeForcing) rows[i].muted = muted;
        mutedBeforeForcing.clear();
    }
    // When a sound that went into the engine at `sec` is heard from `row`.
    double heardAt(const FakeRow& row, double sec) const {
        return sec + (row.engineDelayMs + row.trueLatencyMs) / 1000.0;
    }
};

struct Emission {
    double startSec;
    double rate;
    std::vector<float> samples;
};

class FakeTones : public ToneOutput {
  public:
    FakeTones(dispatch::VirtualMainQueue& main) : main_(main) {}
    bool available = true;
    bool answers = true;  // false: a server that never answers the opening
    double playerLatencySec = 0.025;
    // The next sound goes in with a gap this long halfway through, as a
    // stream that fell behind the sink leaves one.
    double gapSec = 0;
    std::vector<Emission> emitted;
    std::function<void(const Emission&)> onEmit;

    void open(double rate, std::function<void(TonePlayerOpenResult)> done) override {
        if (!answers) return;
        main_.post([this, rate, done = std::move(done)] {
            if (!available) return done({nullptr, "refused"});
            done({std::make_unique<Player>(*this, rate), {}});
        });
    }

  private:
    struct Player : TonePlayer {
        Player(FakeTones& o, double r) : owner(o), rate(r) {}
        FakeTones& owner;
        double rate;
        std::vector<std::unique_ptr<dispatch::TimerHandle>> pending;
        double sampleRate() const override { return rate; }
        void play(std::vector<float> samples, float gain,
                  std::function<void(PlayedSound)> completion) override {
            for (auto& s : samples) s *= gain;
            const double start = owner.main_.now() + owner.playerLatencySec;
            const double gap = std::exchange(owner.gapSec, 0.0);
            const double length = double(samples.size()) / rate + gap;
            if (gap > 0) {
                const auto half = samples.begin() + long(samples.size() / 2);
                std::vector<float> rest(half, samples.end());
                samples.erase(half, samples.end());
                const double restAt = start + double(samples.size()) / rate + gap;
                owner.emitted.push_back({start, rate, std::move(samples)});
                owner.emitted.push_back({restAt, rate, std::move(rest)});
            } else {
                owner.emitted.push_back({start, rate, std::move(samples)});
            }
            if (owner.onEmit) owner.onEmit(owner.emitted.back());
            pending.push_back(owner.main_.postAfter(
                owner.playerLatencySec + length,
                [start, whole = gap == 0, completion = std::move(completion)] {
                    completion({start, whole});
                }));
        }
        void stop() override { pending.clear(); }
    };
    dispatch::VirtualMainQueue& main_;
};

// A person's reaction to a click: a steady 180 ms, scattered evenly over
// 20 ms either way. Random scatter would not do for a test: with twelve taps
// a side, the difference of two medians of Gaussian taps (sigma 20 ms) has a
// spread of about 10 ms, so no fixed limit near 5 ms would hold every run.
class Reaction {
  public:
    double nextSec() {
        static constexpr double scatterMs[] = {-20, 12, -4, 20, -12, 4};
        const double ms = 180.0 + scatterMs[next_++ % std::size(scatterMs)];
        return ms / 1000.0;
    }

  private:
    size_t next_ = 0;
};

struct RoomSound {
    double micRate = 48000;
    float directGain = 0.3f;
    // Relative to the direct sound; 0 for none.
    double reflectionMs = 3.0;
    float reflectionGain = 0.05f;
    float noise = 0.01f;
};

class FakeMicrophone : public Microphone {
  public:
    FakeMicrophone(dispatch::VirtualMainQueue& main, FakeHost& host, FakeTones& tones)
        : main_(main), host_(host), tones_(tones) {}
    MicOpenError failure = MicOpenError::none;
    bool answers = true;
    RoomSound room;

    void openDefault(std::function<void(MicOpenResult)> done) override {
        if (!answers) return;
        main_.post([this, done = std::move(done)] {
            if (failure != MicOpenError::none) return done({nullptr, failure, "scripted"});
            done({std::make_unique<Capture>(*this), MicOpenError::none, {}});
        });
    }

  private:
    struct Capture : MicCapture {
        explicit Capture(FakeMicrophone& o) : owner(o) {}
        FakeMicrophone& owner;
        double begunAt = 0;
        double sampleRate() const override { return owner.room.micRate; }
        void beginWindow() override { begunAt = owner.main_.now(); }
        MicWindow endWindow() override { return owner.hear(begunAt, owner.main_.now()); }
        float currentLevel() const override { return 0; }
    };

    // Every unmuted row's copy of every sound, as the air brings it.
    MicWindow hear(double from, double to) {
        const RoomSound& r = room;
        MicWindow w;
        w.sampleRate = r.micRate;
        // The stamp says when the first frame reached the source: the
        // stream delivers it a little later than that.
        w.firstFrameHostSec = from;
        w.samples.resize(size_t((to - from) * r.micRate));
        std::mt19937 random(seed_++);
        std::normal_distribution<float> gauss(0.0f, r.noise);
        for (auto& s : w.samples) s = r.noise > 0 ? gauss(random) : 0.0f;
        auto add = [&](const Emission& e, double at, float gain) {
            for (size_t i = 0; i < w.samples.size(); ++i) {
                const double pos = (from + double(i) / r.micRate - at) * e.rate;
                if (pos < 0 || pos >= double(e.samples.size() - 1)) continue;
                const auto k = size_t(pos);
                const float frac = float(pos - double(k));
                w.samples[i] += gain * (e.samples[k] * (1 - frac) + e.samples[k + 1] * frac);
            }
        };
        for (const Emission& e : tones_.emitted)
            for (const FakeRow& row : host_.rows) {
                if (row.muted) continue;
                const double at = host_.heardAt(row, e.startSec);
                add(e, at, r.directGain);
                if (r.reflectionMs > 0) add(e, at + r.reflectionMs / 1000.0, r.reflectionGain);
            }
        return w;
    }

    dispatch::VirtualMainQueue& main_;
    FakeHost& host_;
    FakeTones& tones_;
    unsigned seed_ = 11;
};

}  // namespace vt::calibration::testing
