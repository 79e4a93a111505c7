// Test sounds for a measurement. They are played into the capture sink, so
// they take the music's path through the engine (its delays and equalisers
// included) to every speaker that is not muted.
//
// The sound server's implementation lives beside the other streams of the
// backend; unit tests use a scripted fake.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vt::calibration {

// What a played sound reports once all of it has gone into the capture sink.
struct PlayedSound {
    // CLOCK_MONOTONIC seconds at which its first sample was played into the
    // capture sink (0 when the stream could not say).
    double startHostSec = 0;
    // False when the stream fell behind while the sound played and went on
    // past a gap: the sound reached the sink in pieces, and where it was
    // heard says nothing about where it began.
    bool whole = true;
};

class TonePlayer {
  public:
    virtual ~TonePlayer() = default;
    // The stream's rate; sounds handed to play() are at this rate.
    virtual double sampleRate() const = 0;
    // Main thread. Plays `samples` (mono, into every channel) times `gain`,
    // after whatever is still queued; `completion` runs on the main queue
    // once the last sample has been played. An empty sound completes at once
    // with a start of 0.
    virtual void play(std::vector<float> samples, float gain,
                      std::function<void(PlayedSound)> completion) = 0;
    // Main thread: silence at once; pending completions never run.
    virtual void stop() = 0;
};

struct TonePlayerOpenResult {
    std::unique_ptr<TonePlayer> player;  // null on failure
    std::string detail;                  // the server's own words, for the log only
};

// Opens a playback stream into the capture sink at `sampleRate`, without
// waiting for the server: `done` runs on the main queue with the outcome.
// Fails while nothing runs.
class ToneOutput {
  public:
    virtual ~ToneOutput() = default;
    virtual void open(double sampleRate, std::function<void(TonePlayerOpenResult)> done) = 0;
};

}  // namespace vt::calibration
