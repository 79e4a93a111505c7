// One calibration: how late one row is against another, the reference, in
// ms. It takes over what is heard while it measures (muting every row but
// the one under test, without that reaching the stored rows), gives it back
// when it ends, and stores nothing until apply. Main thread only.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "calibration/calibration_host.h"
#include "calibration/mic_capture.h"
#include "calibration/narrowing_search.h"
#include "calibration/tap_estimator.h"
#include "calibration/tone_player.h"
#include "dispatch/main_queue.h"

namespace vt::calibration {

class Calibrator {
  public:
    enum class Method { reported, microphone, tapping, narrowing };
    static constexpr Method allMethods[] = {Method::reported, Method::microphone, Method::tapping,
                                            Method::narrowing};

    enum class PhaseKind { choosing, measuringReference, measuringOutput, comparing, done, failed };
    struct Phase {
        PhaseKind kind = PhaseKind::choosing;
        double milliseconds = 0;  // done
        std::string message;      // failed
    };

    static constexpr int minimumTaps = 12;
    static constexpr double clickIntervalSec = 0.8;
    static constexpr double clickDurationSec = 0.012;
    static constexpr float clickGain = 0.7f;
    static constexpr float sweepGain = 0.6f;
    static constexpr double toneRate = 48000.0;
    // Listening beyond the row's own lateness, for the sweep and the room.
    static constexpr double recordingMarginSec = 1.2;
    static constexpr double longestDrainSec = 4.0;
    static constexpr double narrowingSpreadMs = 300.0;
    // A sound server that has not opened the microphone or the test sound
    // by then is not going to: the measurement says so rather than wait.
    static constexpr double openLimitSec = 5.0;
    // A sweep is played only once the engine's output stands this close to
    // where its delays put it, and taken again when the output moved further
    // while it was heard.
    static constexpr double steadyMs = 0.2;
    static constexpr double steadyPollSec = 0.05;
    // Longer than this unsteady, the sweep is played all the same; after the
    // last take, the steadiest is used.
    static constexpr double steadyWaitSec = 3.0;
    static constexpr int maximumTakes = 3;
    // A new stream's clock is drawn from a few snapshots and may be off by a
    // millisecond, moving as more come in; the first sweep waits this long
    // after the test sound's stream opened.
    static constexpr double clockSettleSec = 2.0;

    Calibrator(CalibrationHost& host, dispatch::MainQueue& main, Microphone& microphone,
               ToneOutput& tones, RowKey row, RowKey reference);
    ~Calibrator();
    Calibrator(const Calibrator&) = delete;
    Calibrator& operator=(const Calibrator&) = delete;

    Method method() const { return method_; }
    void setMethod(Method method);
    const Phase& phase() const { return phase_; }
    RowKey rowKey() const { return row_; }
    RowKey referenceKey() const { return reference_; }

    // Starts the chosen method (from choosing only).
    void begin();
    // Puts back what was touched and ends.
    void cancel();
    // With a result: stores it (and zeroes the row's offset) and ends.
    void apply();
    // Stops what runs, puts the latency back, and offers the methods again.
    void back();
    void tap();
    void choose(NarrowingSearch::Choice choice);
    // Plays with candidate 0 (a) or 1 (b) as the row's latency.
    void playCandidate(int index);
    bool ended() const { return ended_; }

    int progressTaps() const;
    std::optional<double> tapSpreadMs() const;
    const std::optional<NarrowingSearch>& search() const { return search_; }
    std::optional<int> playingCandidate() const { return playingCandidate_; }

    // After every change of phase, tap or candidate.
    std::function<void()> onChanged;

    static std::string_view rawValue(Method method);
    static std::optional<Method> methodFromRaw(std::string_view raw);
    static std::string_view blurb(Method method);
    static std::string_view costWord(Method method);
    static settings::LatencySource sourceOf(Method method);

  private:
    struct Recording {
        MicWindow window;
        PlayedSound played;
    };

    void finish();
    void stopRunning();
    void setPhase(Phase phase);
    void fail(std::string message);
    void changed();
    // Each runs `then` once its stream is open, or fails in its own words.
    void openPlayer(std::function<void()> then);
    void openMicrophone(std::function<void()> then);
    void muteAllBut(int slot);
    double latenessSec(int slot) const;
    double drainSec() const;
    RowTiming noteTiming(int slot) const;
    LatencyRange rangeOf(int slot) const;

    void beginReported();
    void beginAcoustic();
    void record(int slot, std::function<void(Recording)> then);
    void take(RowKey key, int number, std::function<void(Recording)> then);
    void whenSteady(RowKey key, double since, std::function<void()> then);
    double engineOffMs(RowKey key) const;
    void settle(const Recording& reference, const Recording& output);
    void beginTapping();
    void startClicks();
    void tapsSettled();
    void beginNarrowing();

    CalibrationHost& host_;
    dispatch::MainQueue& main_;
    Microphone& microphone_;
    ToneOutput& tones_;
    const RowKey row_, reference_;
    Method method_ = Method::microphone;
    Phase phase_;
    bool ended_ = false;
    bool touched_ = false;

    double restoreLatency_ = 0;
    double restoreDelay_ = 0;
    settings::LatencySource restoreSource_ = settings::LatencySource::none;

    std::unique_ptr<TonePlayer> player_;
    double playerOpenedAt_ = 0;
    std::unique_ptr<MicCapture> mic_;
    std::unique_ptr<dispatch::TimerHandle> clickTimer_, waitTimer_, openTimer_, steadyTimer_;
    double worstOffMs_ = 0;  // while the current sweep is heard
    struct Take {
        Recording recording;
        RowTiming timing;
        double worstOffMs = 0;
        // A sweep that went in with a gap is never as good as a whole one.
        bool steady() const { return recording.played.whole && worstOffMs <= steadyMs; }
        bool steadierThan(const Take& other) const {
            if (recording.played.whole != other.recording.played.whole)
                return recording.played.whole;
            return worstOffMs < other.worstOffMs;
        }
    };
    std::optional<Take> steadiest_;  // of the current sweep's takes
    // Counts what was started and later stopped: an opening that answers
    // after its measurement stopped is dropped.
    uint64_t attempt_ = 0;
    std::vector<float> click_;
    TapEstimator referenceTaps_, outputTaps_;
    double lastClickAt_ = 0;
    std::vector<double> clickTimes_;
    double expectedReferenceMs_ = 0, expectedOutputMs_ = 0;
    RowTiming referenceTiming_, outputTiming_;
    std::optional<Recording> referenceRecording_;

    std::optional<NarrowingSearch> search_;
    std::optional<int> playingCandidate_;

    // Waiting closures hold this weakly, so a calibration that has ended
    // never hears from them.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace vt::calibration
