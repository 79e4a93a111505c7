// The virtual room's sound: each speaker's monitor kept for a few seconds on
// the host clock, and the microphone's signal made from it, frame by frame,
// at the host time each frame will be played into the room's sink.
//
// Every speaker's history is written by the record streams' thread and read
// by the playback stream's thread, so neither waits on a lock: the history is
// a ring the reader only reads behind the writer's published count, and the
// one clock reading the reader needs (a frame and its host time) travels
// under a sequence counter.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "room_paths.h"

namespace vt::room {

class SpeakerHistory {
  public:
    static constexpr size_t kFrames = size_t{1} << 18;  // about 5 s at 48 kHz

    explicit SpeakerHistory(double rate) : rate_(rate), ring_(kFrames, 0.0f) {}
    double rate() const { return rate_; }

    // The record thread: `count` interleaved stereo frames (null for a hole)
    // whose first was played into the speaker's sink at `hostSec` (0: unknown).
    void append(const float* frames, uint32_t count, double hostSec);

    // The playback thread: what the speaker played at host time `hostSec`,
    // or 0 where the history does not reach. `reading` holds one clock
    // reading taken by beginRead for a whole block.
    struct Reading {
        int64_t written = 0;
        int64_t frame = 0;
        double hostSec = 0;
        bool valid = false;
    };
    Reading beginRead() const;
    float at(const Reading& reading, double hostSec) const;

  private:
    const double rate_;
    std::vector<float> ring_;
    std::atomic<int64_t> written_{0};
    std::atomic<uint64_t> sequence_{0};
    std::atomic<int64_t> clockFrame_{0};
    std::atomic<double> clockHostSec_{0};
};

class RoomMixer {
  public:
    RoomMixer(std::vector<std::unique_ptr<SpeakerHistory>>& speakers, double rate, float noise);
    // Main thread: the paths from now on. The old set stays alive (kept
    // here) since the playback thread may still be reading it.
    void setPaths(std::vector<Path> paths);
    // The playback thread: `count` stereo frames, the first heard at `presentSec`.
    void render(float* frames, uint32_t count, double presentSec);

  private:
    std::vector<std::unique_ptr<SpeakerHistory>>& speakers_;
    const double rate_;
    const float noise_;
    uint64_t noiseState_ = 0x2545f4914f6cdd1dULL;
    std::vector<std::unique_ptr<const std::vector<Path>>> kept_;
    std::atomic<const std::vector<Path>*> paths_{nullptr};
    std::vector<SpeakerHistory::Reading> readings_;
};

}  // namespace vt::room
