#include "airplay_tool/send_plan.h"

#include <algorithm>

namespace vt::airplay_tool {

namespace {
constexpr int64_t kNsPerSecond = 1'000'000'000;
}  // namespace

std::optional<int64_t> SendPlan::place(int64_t arrivalNs) {
    const int64_t expected = timeline_.playUnixNs(input_) - leadNs_;
    if (arrivalNs - expected > kLateInputNs) {
        // Heard its lead after it came, on a slot boundary at or after that.
        const int64_t dueNs = arrivalNs + leadNs_ - timeline_.startUnixNs();
        const int64_t frames = (dueNs * kRaopSampleRate + kNsPerSecond - 1) / kNsPerSecond;
        const int64_t slots = (frames + kFramesPerSlot - 1) / kFramesPerSlot;
        const int64_t moved = std::max(input_, slots * kFramesPerSlot);
        shifted_ += moved - input_;
        input_ = moved;
    }
    const int64_t frame = input_;
    input_ += kFramesPerSlot;
    if (frame < slot_) return std::nullopt;
    return frame;
}

SendPlan::Step SendPlan::next(int64_t nowNs, std::optional<int64_t> queued) const {
    using Kind = Step::Kind;
    if (queued && *queued < slot_) return {Kind::drop};
    const int64_t sendAt = timeline_.sendNotBeforeUnixNs(slot_);
    if (nowNs < sendAt) return {Kind::wait, sendAt};
    if (queued && *queued == slot_) return {Kind::send};
    // Later audio waiting means this slot was skipped over: nothing comes for it.
    if (queued) return {Kind::pad};
    const int64_t padAt = timeline_.playUnixNs(slot_) - kPadMarginNs;
    if (nowNs >= padAt) return {Kind::pad};
    return {Kind::wait, padAt};
}

}  // namespace vt::airplay_tool
