// Input placed at any frame of the time line, put into packets of 352 frames
// on the slots the sender fills. Input placed off a slot boundary starts
// its packet with silence, so it is heard at the frame it was placed at,
// not on the boundary after it; input that follows fills on from there.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "airplay_tool/alac_frame.h"

namespace vt::airplay_tool {

class SlotAssembler {
  public:
    static constexpr size_t kSlotSamples = kFramesPerPacket * 2;  // stereo
    using Emit = std::function<void(int64_t slotFrame, std::span<const int16_t> samples)>;

    // Stereo `samples` heard from `frame` on. Each packet they complete is
    // emitted; a packet held from input that does not run on into these is
    // emitted first, its rest silent.
    void add(int64_t frame, std::span<const int16_t> samples, const Emit& emit);
    // What is held goes out, its rest silent.
    void finish(const Emit& emit);
    // What is held is dropped (a flush).
    void clear() { held_ = 0; }
    // Frames of input that complete the packet held; a whole packet when none is.
    size_t framesWanted() const { return held_ == 0 ? kFramesPerPacket : kFramesPerPacket - held_; }

  private:
    std::array<int16_t, kSlotSamples> packet_{};
    int64_t slot_ = 0;  // the frame the held packet starts at
    size_t held_ = 0;   // frames of it filled, silence included
};

}  // namespace vt::airplay_tool
