// Which packet goes out when. The receiver's time line runs by the clock, not
// by the app's writes: a packet slot that comes due with no audio for it goes
// out as silence, and audio that comes after a long stall is placed where the
// app meant it, its lead after it was written, rather than straight after the
// audio before it, where it would be heard early by the length of the stall.
// Pure: the streamer's threads call it under their lock with the time.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>

#include "airplay_tool/alac_frame.h"
#include "airplay_tool/stream_timeline.h"

namespace vt::airplay_tool {

class SendPlan {
  public:
    // A slot is one packet of audio.
    static constexpr int64_t kFramesPerSlot = static_cast<int64_t>(kFramesPerPacket);
    // The app's pump starts afresh rather than catching up once it is this far
    // behind; audio later than this was written after such a stall.
    static constexpr int64_t kLateInputNs = 500'000'000;
    // A slot with no audio this close to being heard goes out as silence.
    static constexpr int64_t kPadMarginNs = 100'000'000;
    // Paused, a slot goes out as silence this long after it may go.
    static constexpr int64_t kPausedPadDelayNs = 100'000'000;

    // Frame 0 of `timeline` is the audio that arrived `leadNs` before it is heard.
    SendPlan(StreamTimeline timeline, int64_t leadNs) : timeline_(timeline), leadNs_(leadNs) {}

    // The frame the first of `frames` of input that arrived at `arrivalNs` is
    // heard as, or none when its slot has already gone out as silence. It need
    // not be a slot's first frame.
    std::optional<int64_t> place(int64_t arrivalNs, int64_t frames = kFramesPerSlot);

    struct Step {
        enum class Kind { wait, send, pad, drop } kind = Kind::wait;
        int64_t untilNs = 0;  // for wait: when to look again at the latest
    };
    // What the sender does now, `queued` being the frame of the oldest packet
    // waiting. send: that packet; pad: silence; drop: the packet's slot is gone.
    // Paused, no audio is coming: each slot goes out as silence soon after it may.
    Step next(int64_t nowNs, std::optional<int64_t> queued, bool paused = false) const;
    // The slot went out, with audio or silence.
    void sent() { slot_ += kFramesPerSlot; }
    // After a pause: the next input keeps its place on the time line if its
    // slot has not gone out, else it is heard its lead after it comes.
    void restartInput() { restart_ = true; }
    // The frame heard the lead after `arrivalNs`, or the first slot that has
    // not gone out if that is later.
    int64_t freshFrame(int64_t arrivalNs) const;

    int64_t slotFrame() const { return slot_; }
    // How far late audio has moved the time line forward, in frames.
    int64_t shiftedFrames() const { return shifted_; }
    int64_t inputFrame() const { return input_; }
    const StreamTimeline& timeline() const { return timeline_; }

  private:
    StreamTimeline timeline_;
    int64_t leadNs_;
    int64_t input_ = 0;  // the frame the next packet of input is
    int64_t slot_ = 0;   // the frame of the next slot to go out
    int64_t shifted_ = 0;
    bool restart_ = false;
};

}  // namespace vt::airplay_tool
