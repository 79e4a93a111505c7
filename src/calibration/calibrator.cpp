#include "calibration/calibrator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "calibration/acoustic_estimator.h"
#include "calibration/chirp.h"

namespace vt::calibration {

using settings::LatencySource;

namespace {

std::string formatMs(const char* before, double ms, const char* after) {
    char number[32];
    std::snprintf(number, sizeof number, "%.0f", ms);
    return std::string(before) + number + after;
}

}  // namespace

std::string_view Calibrator::rawValue(Method method) {
    switch (method) {
        case Method::reported:
            return "reported";
        case Method::microphone:
            return "microphone";
        case Method::tapping:
            return "tapping";
        case Method::narrowing:
            return "narrowing";
    }
    return "reported";
}

std::optional<Calibrator::Method> Calibrator::methodFromRaw(std::string_view raw) {
    for (Method m : allMethods)
        if (rawValue(m) == raw) return m;
    return std::nullopt;
}

std::string_view Calibrator::blurb(Method method) {
    switch (method) {
        case Method::reported:
            return "Takes the speaker's own word for it. Instant, and you do nothing at all. "
                   "Roughly right rather than exact.";
        case Method::microphone:
            return "Plays a short sweep from each speaker and times it with the microphone. Most "
                   "accurate, and you do nothing.";
        case Method::tapping:
            return "Tap along with a click from each speaker. No microphone needed.";
        case Method::narrowing:
            return "Hear two settings and say which sounded tighter. Takes a few rounds.";
    }
    return {};
}

std::string_view Calibrator::costWord(Method method) {
    switch (method) {
        case Method::reported:
            return "instant";
        case Method::microphone:
            return "a few seconds";
        case Method::tapping:
            return "about 40 seconds";
        case Method::narrowing:
            return "a few minutes";
    }
    return {};
}

LatencySource Calibrator::sourceOf(Method method) {
    switch (method) {
        case Method::reported:
            return LatencySource::reported;
        case Method::microphone:
            return LatencySource::heard;
        case Method::tapping:
            return LatencySource::tapped;
        case Method::narrowing:
            return LatencySource::narrowed;
    }
    return LatencySource::none;
}

Calibrator::Calibrator(CalibrationHost& host, dispatch::MainQueue& main, Microphone& microphone,
                       ToneOutput& tones, RowKey row, RowKey reference)
    : host_(host),
      main_(main),
      microphone_(microphone),
      tones_(tones),
      row_(row),
      reference_(reference) {
    if (auto slot = host_.slotOf(row_)) {
        const CalibrationRow r = host_.row(*slot);
        restoreLatency_ = r.measuredLatencyMs;
        restoreSource_ = r.latencySource;
        restoreDelay_ = r.delayMs;
    }
}

Calibrator::~Calibrator() {
    if (!ended_) finish();
}

void Calibrator::setMethod(Method method) {
    if (phase_.kind != PhaseKind::choosing) return;
    method_ = method;
    changed();
}

void Calibrator::changed() {
    if (onChanged) onChanged();
}

void Calibrator::setPhase(Phase phase) {
    phase_ = std::move(phase);
    changed();
}

void Calibrator::fail(std::string message) {
    stopRunning();
    setPhase({PhaseKind::failed, 0, std::move(message)});
}

// ---------------------------------------------------------------- timing

double Calibrator::latenessSec(int slot) const {
    if (slot < 0 || slot >= host_.rowCount()) return 0;
    const RowTiming t = host_.row(slot).timing;
    return (t.engineDelayMs + std::max(0.0, t.believedMs)) / 1000.0;
}

double Calibrator::drainSec() const {
    double longest = 0;
    for (int s = 0; s < host_.rowCount(); ++s) longest = std::max(longest, latenessSec(s));
    return std::min(longest, longestDrainSec);
}

RowTiming Calibrator::noteTiming(int slot) const {
    return host_.row(slot).timing;
}

LatencyRange Calibrator::rangeOf(int slot) const {
    return latencyRange(host_.row(slot).networkOutput);
}

void Calibrator::muteAllBut(int slot) {
    for (int s = 0; s < host_.rowCount(); ++s) host_.setMutedWithoutRemembering(s, s != slot);
}

namespace {
constexpr const char* kPlayerFailed = "Could not start audio for the test sound.";
constexpr const char* kMicrophoneFailed = "Could not open the microphone.";
}  // namespace

void Calibrator::openPlayer(std::function<void()> then) {
    const uint64_t attempt = attempt_;
    std::weak_ptr<bool> alive = alive_;
    openTimer_ = main_.postAfter(openLimitSec, [this, alive, attempt] {
        if (!alive.expired() && attempt == attempt_) fail(kPlayerFailed);
    });
    tones_.open(toneRate,
                [this, alive, attempt, then = std::move(then)](TonePlayerOpenResult opened) {
                    if (alive.expired() || attempt != attempt_) return;
                    openTimer_.reset();
                    if (!opened.player) {
                        fail(kPlayerFailed);
                        return;
                    }
                    player_ = std::move(opened.player);
                    then();
                });
}

void Calibrator::openMicrophone(std::function<void()> then) {
    const uint64_t attempt = attempt_;
    std::weak_ptr<bool> alive = alive_;
    openTimer_ = main_.postAfter(openLimitSec, [this, alive, attempt] {
        if (!alive.expired() && attempt == attempt_) fail(kMicrophoneFailed);
    });
    microphone_.openDefault([this, alive, attempt, then = std::move(then)](MicOpenResult opened) {
        if (alive.expired() || attempt != attempt_) return;
        openTimer_.reset();
        if (!opened.mic) {
            fail(opened.error == MicOpenError::noInputDevice
                     ? "No microphone. Try tapping along instead."
                     : kMicrophoneFailed);
            return;
        }
        mic_ = std::move(opened.mic);
        then();
    });
}

// ---------------------------------------------------------------- begin

void Calibrator::begin() {
    if (ended_ || phase_.kind != PhaseKind::choosing) return;
    touched_ = true;
    host_.beginForcedMutes(this);
    switch (method_) {
        case Method::reported:
            beginReported();
            break;
        case Method::microphone:
            setPhase({PhaseKind::measuringReference, 0, {}});
            openPlayer([this] {
                playerOpenedAt_ = main_.now();
                openMicrophone([this] { beginAcoustic(); });
            });
            break;
        case Method::tapping:
            setPhase({PhaseKind::measuringReference, 0, {}});
            openPlayer([this] { beginTapping(); });
            break;
        case Method::narrowing:
            beginNarrowing();
            break;
    }
}

void Calibrator::beginReported() {
    const auto slot = host_.slotOf(row_);
    if (!slot) return;
    const CalibrationRow row = host_.row(*slot);
    if (row.networkOutput) {
        fail(
            "This output already reports its own delay, and the row uses it. Listening measures "
            "what that report misses.");
        return;
    }
    const double r = row.reportedLatencyMs;
    if (r < 2.0) {
        fail(
            "This speaker does not say it is meaningfully late. Nothing to correct, or it does "
            "not report its delay. Try listening instead.");
        return;
    }
    if (r > latencyRange(false).highMs) {
        fail(formatMs("It claims to be ", r,
                      " ms late, which is too far to believe. Measure it "
                      "instead."));
        return;
    }
    setPhase({PhaseKind::done, r, {}});
}

// ---------------------------------------------------------------- microphone

void Calibrator::beginAcoustic() {
    const auto referenceSlot = host_.slotOf(reference_);
    if (!referenceSlot) return;
    muteAllBut(*referenceSlot);
    record(*referenceSlot, [this](Recording reference) {
        const auto slot = host_.slotOf(row_);
        if (!slot) return;
        referenceRecording_ = std::move(reference);
        setPhase({PhaseKind::measuringOutput, 0, {}});
        muteAllBut(*slot);
        record(*slot, [this](Recording output) { settle(*referenceRecording_, output); });
    });
}

void Calibrator::record(int slot, std::function<void(Recording)> then) {
    const RowKey key = slot == host_.slotOf(reference_) ? reference_ : row_;
    std::weak_ptr<bool> alive = alive_;
    // What is already on its way to the speakers dies away first, and the
    // test sound's stream has found its clock.
    const double wait = std::max(drainSec(), playerOpenedAt_ + clockSettleSec - main_.now());
    waitTimer_ = main_.postAfter(wait, [this, alive, key, then = std::move(then)]() mutable {
        if (!alive.expired()) take(key, 1, std::move(then));
    });
}

double Calibrator::engineOffMs(RowKey key) const {
    const auto slot = host_.slotOf(key);
    return slot ? std::fabs(host_.row(*slot).engineOffMs) : 0.0;
}

void Calibrator::whenSteady(RowKey key, double since, std::function<void()> then) {
    if (engineOffMs(key) <= steadyMs || main_.now() - since >= steadyWaitSec) {
        then();
        return;
    }
    std::weak_ptr<bool> alive = alive_;
    waitTimer_ = main_.postAfter(steadyPollSec, [this, alive, key, since, then = std::move(then)] {
        if (!alive.expired()) whenSteady(key, since, then);
    });
}

// One sweep through one row, heard from just before it goes in until the
// row's lateness and the room's echoes have passed.
void Calibrator::take(RowKey key, int number, std::function<void(Recording)> then) {
    std::weak_ptr<bool> alive = alive_;
    whenSteady(key, main_.now(), [this, alive, key, number, then = std::move(then)] {
        const auto slot = host_.slotOf(key);
        if (alive.expired() || !mic_ || !player_ || !slot) return;
        const double windowSec = latenessSec(*slot) + recordingMarginSec;
        mic_->beginWindow();
        (key == reference_ ? referenceTiming_ : outputTiming_) = noteTiming(*slot);
        worstOffMs_ = engineOffMs(key);
        steadyTimer_ = main_.repeat(steadyPollSec, [this, alive, key] {
            if (!alive.expired()) worstOffMs_ = std::max(worstOffMs_, engineOffMs(key));
        });
        Chirp sound = Chirp::measurementSound(player_->sampleRate());
        player_->play(
            std::move(sound.samples), sweepGain,
            [this, alive, key, number, windowSec, then](PlayedSound played) {
                if (alive.expired()) return;
                waitTimer_ = main_.postAfter(windowSec, [this, alive, key, number, played, then] {
                    if (alive.expired() || !mic_) return;
                    steadyTimer_.reset();
                    RowTiming& noted = key == reference_ ? referenceTiming_ : outputTiming_;
                    Take heard{{mic_->endWindow(), played}, noted, worstOffMs_};
                    if (std::getenv("VELLATONE_CALIBRATION_DEBUG"))
                        std::fprintf(stderr,
                                     "[calibration] take %d of %s: the engine stood up to %.3f "
                                     "ms off%s\n",
                                     number, key == reference_ ? "the reference" : "the row",
                                     heard.worstOffMs,
                                     played.whole ? "" : ", the sweep went in with a gap");
                    if (!steadiest_ || heard.steadierThan(*steadiest_))
                        steadiest_ = std::move(heard);
                    if (!steadiest_->steady() && number < maximumTakes) {
                        take(key, number + 1, then);
                        return;
                    }
                    Recording best = std::move(steadiest_->recording);
                    noted = steadiest_->timing;
                    steadiest_.reset();
                    then(std::move(best));
                });
            });
    });
}

void Calibrator::settle(const Recording& reference, const Recording& output) {
    const double rate = output.window.sampleRate > 0 ? output.window.sampleRate
                                                     : (mic_ ? mic_->sampleRate() : toneRate);
    const Chirp sound = Chirp::measurementSound(rate);
    const auto heard = AcousticEstimator::relativeLatency(
        sound.samples, reference.window.samples, output.window.samples, rate,
        FrequencyBand{kMeasurementLowHz, kMeasurementHighHz});
    const auto slot = host_.slotOf(row_);
    if (!slot) return;
    // A correlation of noise alone still has a highest point; only a peak
    // well clear of the rest is the sweep.
    if (!heard || heard->strength < AcousticEstimator::minimumStrength) {
        fail(
            "Could not hear the test sound. Turn the speakers up, or move them nearer the "
            "microphone.");
        return;
    }
    // Each window began a little before its sweep went in; place both
    // arrivals against the moment their sweep entered the capture sink.
    auto lead = [](const Recording& r) {
        if (r.window.firstFrameHostSec <= 0 || r.played.startHostSec <= 0) return 0.0;
        return r.window.firstFrameHostSec - r.played.startHostSec;
    };
    const double heardMs = heard->latencyMs + (lead(output) - lead(reference)) * 1000.0;
    if (std::getenv("VELLATONE_CALIBRATION_DEBUG")) {
        auto line = [](const char* name, const Recording& r, double arrivalSec) {
            std::fprintf(stderr,
                         "[calibration] %s: heard %.6f s into a window from %.6f, sweep in at "
                         "%.6f\n",
                         name, arrivalSec, r.window.firstFrameHostSec, r.played.startHostSec);
        };
        line("reference", reference, heard->referenceSec);
        line("output", output, heard->outputSec);
        std::fprintf(stderr, "[calibration] heard %.3f ms, spread %.2f ms, strength %.0f\n",
                     heardMs, heard->reflectionSpreadMs, double(heard->strength));
    }
    const double v = toStore(heardMs, referenceTiming_, outputTiming_);
    if (!insideRange(v, rangeOf(*slot))) {
        fail(formatMs("Heard something ", v,
                      " ms out, which is too far to be real. Try again somewhere quieter."));
        return;
    }
    if (!heard->trusted) {
        fail(
            "Mostly heard the room rather than the speaker. Point it at the computer and try "
            "again.");
        return;
    }
    stopRunning();
    setPhase({PhaseKind::done, v, {}});
}

// ---------------------------------------------------------------- tapping

void Calibrator::beginTapping() {
    const auto referenceSlot = host_.slotOf(reference_);
    if (!referenceSlot) return;
    referenceTaps_ = {};
    outputTaps_ = {};
    setPhase({PhaseKind::measuringReference, 0, {}});
    muteAllBut(*referenceSlot);
    referenceTiming_ = noteTiming(*referenceSlot);
    expectedReferenceMs_ = latenessSec(*referenceSlot) * 1000.0;
    startClicks();
}

void Calibrator::startClicks() {
    click_ = clickSound(player_->sampleRate(), clickDurationSec);
    std::weak_ptr<bool> alive = alive_;
    clickTimer_ = main_.repeat(clickIntervalSec, [this, alive] {
        if (alive.expired() || !player_) return;
        lastClickAt_ = main_.now();
        clickTimes_.push_back(lastClickAt_);
        player_->play(click_, clickGain, [](PlayedSound) {});
    });
}

void Calibrator::tap() {
    if (lastClickAt_ == 0) return;
    const double tappedAt = main_.now();
    const bool reference = phase_.kind == PhaseKind::measuringReference;
    if (!reference && phase_.kind != PhaseKind::measuringOutput) return;
    const auto slot = host_.slotOf(reference ? reference_ : row_);
    if (!slot) return;
    // The click this tap answers is the newest one heard by now.
    const double lateness = latenessSec(*slot);
    double heardAt = lastClickAt_ + lateness;
    for (auto it = clickTimes_.rbegin(); it != clickTimes_.rend(); ++it) {
        if (*it + lateness <= tappedAt) {
            heardAt = *it + lateness;
            break;
        }
    }
    TapEstimator& taps = reference ? referenceTaps_ : outputTaps_;
    taps.add(heardAt, tappedAt);
    if (taps.settled(minimumTaps))
        tapsSettled();
    else
        changed();
}

void Calibrator::tapsSettled() {
    if (phase_.kind == PhaseKind::measuringReference) {
        const auto slot = host_.slotOf(row_);
        if (!slot) return;
        muteAllBut(*slot);
        outputTiming_ = noteTiming(*slot);
        expectedOutputMs_ = latenessSec(*slot) * 1000.0;
        clickTimes_.clear();
        // A tap before the output's first click counts for nothing.
        lastClickAt_ = 0;
        setPhase({PhaseKind::measuringOutput, 0, {}});
        return;
    }
    clickTimer_.reset();
    const auto slot = host_.slotOf(row_);
    if (!slot) return;
    // Taps are judged against where each click should be heard, so the
    // person's reaction time cancels between the two medians.
    const double heard = *outputTaps_.medianMs() - *referenceTaps_.medianMs() + expectedOutputMs_ -
                         expectedReferenceMs_;
    const double v = toStore(heard, referenceTiming_, outputTiming_);
    if (!insideRange(v, rangeOf(*slot))) {
        fail("Those taps did not settle on an answer. Worth another go, or try listening instead.");
        return;
    }
    stopRunning();
    setPhase({PhaseKind::done, v, {}});
}

int Calibrator::progressTaps() const {
    return phase_.kind == PhaseKind::measuringOutput ? outputTaps_.count() : referenceTaps_.count();
}

std::optional<double> Calibrator::tapSpreadMs() const {
    return phase_.kind == PhaseKind::measuringOutput ? outputTaps_.spreadMs()
                                                     : referenceTaps_.spreadMs();
}

// ---------------------------------------------------------------- narrowing

void Calibrator::beginNarrowing() {
    const auto slot = host_.slotOf(row_);
    if (!slot) return;
    search_ = NarrowingSearch(restoreLatency_, narrowingSpreadMs, rangeOf(*slot));
    // The user listens to every output together, with the music.
    host_.endForcedMutes(this);
    setPhase({PhaseKind::comparing, 0, {}});
}

void Calibrator::playCandidate(int index) {
    if (phase_.kind != PhaseKind::comparing || !search_ || (index != 0 && index != 1)) return;
    const auto slot = host_.slotOf(row_);
    if (!slot) return;
    playingCandidate_ = index;
    const auto [a, b] = search_->candidates();
    host_.setMeasuredLatency(*slot, index == 0 ? a : b, restoreSource_);
    changed();
}

void Calibrator::choose(NarrowingSearch::Choice choice) {
    if (phase_.kind != PhaseKind::comparing || !search_) return;
    search_->answer(choice);
    playingCandidate_.reset();
    if (search_->isResolved())
        setPhase({PhaseKind::done, search_->bestMs(), {}});
    else
        changed();
}

// ---------------------------------------------------------------- ending

void Calibrator::stopRunning() {
    ++attempt_;
    clickTimer_.reset();
    waitTimer_.reset();
    openTimer_.reset();
    steadyTimer_.reset();
    steadiest_.reset();
    if (player_) player_->stop();
    player_.reset();
    mic_.reset();
}

void Calibrator::finish() {
    stopRunning();
    host_.endForcedMutes(this);
    ended_ = true;
    alive_.reset();
}

void Calibrator::apply() {
    if (ended_ || phase_.kind != PhaseKind::done) return;
    if (const auto slot = host_.slotOf(row_)) {
        if (host_.row(*slot).delayMs != 0) host_.setDelay(*slot, 0);
        host_.setMeasuredLatency(*slot, phase_.milliseconds, sourceOf(method_));
    }
    finish();
}

void Calibrator::cancel() {
    if (ended_) return;
    if (touched_) {
        if (const auto slot = host_.slotOf(row_)) {
            host_.setMeasuredLatency(*slot, restoreLatency_, restoreSource_);
            if (host_.row(*slot).delayMs != restoreDelay_) host_.setDelay(*slot, restoreDelay_);
        }
    }
    finish();
}

void Calibrator::back() {
    if (ended_) return;
    stopRunning();
    host_.endForcedMutes(this);
    if (touched_)
        if (const auto slot = host_.slotOf(row_))
            host_.setMeasuredLatency(*slot, restoreLatency_, restoreSource_);
    touched_ = false;
    search_.reset();
    playingCandidate_.reset();
    referenceRecording_.reset();
    lastClickAt_ = 0;
    clickTimes_.clear();
    setPhase({PhaseKind::choosing, 0, {}});
}

}  // namespace vt::calibration
