#include "airplay_tool/send_plan.h"

#include <algorithm>

namespace vt::airplay_tool {

namespace {
constexpr int64_t kNsPerSecond = 1'000'000'000;
}  // namespace

int64_t SendPlan::freshFrame(int64_t arrivalNs) const {
    const int64_t dueNs = arrivalNs + leadNs_ - timeline_.startUnixNs();
    return std::max(slot_, (dueNs * kRaopSampleRate + kNsPerSecond - 1) / kNsPerSecond);
}

std::optional<int64_t> SendPlan::place(int64_t arrivalNs, int64_t frames) {
    if (arrivalNs - (timeline_.playUnixNs(input_) - leadNs_) > kLateInputNs) {
        // Heard its lead after it came, to the frame.
        const int64_t moved = std::max(input_, freshFrame(arrivalNs));
        shifted_ += moved - input_;
        input_ = moved;
    }
    if (restart_) {
        // An app that wrote on through the pause keeps its place; one that
        // stopped for a while is heard its lead after it starts again.
        restart_ = false;
        if (input_ < slot_) input_ = freshFrame(arrivalNs);
    }
    const int64_t frame = input_;
    input_ += frames;
    if (frame < slot_) return std::nullopt;
    return frame;
}

SendPlan::Step SendPlan::next(int64_t nowNs, std::optional<int64_t> queued, bool paused) const {
    using Kind = Step::Kind;
    if (queued && *queued < slot_) return {Kind::drop};
    const int64_t sendAt = timeline_.sendNotBeforeUnixNs(slot_);
    if (nowNs < sendAt) return {Kind::wait, sendAt};
    if (queued && *queued == slot_) return {Kind::send};
    // Later audio waiting means this slot was skipped over: nothing comes for it.
    if (queued) return {Kind::pad};
    // Held back a little, so that the audio of an app that writes on through
    // the pause still finds its slot when it is played again.
    if (paused) {
        if (nowNs >= sendAt + kPausedPadDelayNs) return {Kind::pad};
        return {Kind::wait, sendAt + kPausedPadDelayNs};
    }
    const int64_t padAt = timeline_.playUnixNs(slot_) - kPadMarginNs;
    if (nowNs >= padAt) return {Kind::pad};
    return {Kind::wait, padAt};
}

}  // namespace vt::airplay_tool
