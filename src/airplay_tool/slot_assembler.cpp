#include "airplay_tool/slot_assembler.h"

#include <algorithm>

namespace vt::airplay_tool {

namespace {
constexpr int64_t kSlotFrames = static_cast<int64_t>(kFramesPerPacket);

int64_t slotOf(int64_t frame) {
    return (frame >= 0 ? frame : frame - kSlotFrames + 1) / kSlotFrames * kSlotFrames;
}
}  // namespace

void SlotAssembler::add(int64_t frame, std::span<const int16_t> samples, const Emit& emit) {
    if (held_ > 0 && frame != slot_ + static_cast<int64_t>(held_)) finish(emit);
    if (held_ == 0) {
        slot_ = slotOf(frame);
        held_ = static_cast<size_t>(frame - slot_);
        std::fill(packet_.begin(), packet_.begin() + static_cast<std::ptrdiff_t>(held_ * 2), 0);
    }
    while (!samples.empty()) {
        const size_t take = std::min(samples.size() / 2, kFramesPerPacket - held_);
        std::copy_n(samples.begin(), take * 2,
                    packet_.begin() + static_cast<std::ptrdiff_t>(held_ * 2));
        samples = samples.subspan(take * 2);
        held_ += take;
        if (held_ < kFramesPerPacket) break;
        emit(slot_, packet_);
        slot_ += kSlotFrames;
        held_ = 0;
    }
}

void SlotAssembler::finish(const Emit& emit) {
    if (held_ == 0) return;
    std::fill(packet_.begin() + static_cast<std::ptrdiff_t>(held_ * 2), packet_.end(), 0);
    emit(slot_, packet_);
    held_ = 0;
}

}  // namespace vt::airplay_tool
