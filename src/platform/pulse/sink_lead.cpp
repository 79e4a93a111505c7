#include "platform/pulse/sink_lead.h"

#include <algorithm>

#include "platform/pulse/pulse_streams.h"

namespace vt::platform::pulse {

namespace {

// The stream loop's thread: no allocation, no locks, no logging.
bool writeSilence(void*, float* frames, uint32_t count, double, double) {
    std::fill(frames, frames + 2 * static_cast<size_t>(count), 0.0f);
    return true;
}

class Companioned final : public Stream {
  public:
    Companioned(std::unique_ptr<Stream> main, std::unique_ptr<Stream> companion)
        : main_(std::move(main)), companion_(std::move(companion)) {}
    ~Companioned() override { companion_.reset(); }
    double sampleRate() const override { return main_->sampleRate(); }
    uint64_t underruns() const override { return main_->underruns(); }

  private:
    std::unique_ptr<Stream> main_;
    std::unique_ptr<Stream> companion_;
};

}  // namespace

std::unique_ptr<Stream> holdShortSinkLead(std::shared_ptr<PulseLoop> streams, PulseLoop& control,
                                          uint32_t sinkIndex, const std::string& sinkName,
                                          uint32_t rate, bool restartClock) {
    StreamResult silent = openPlaybackStream(std::move(streams), sinkName, "Vellatone silence",
                                             rate, &writeSilence, nullptr);
    if (!silent.stream) return nullptr;
    if (restartClock) {
        PulseLoop::Lock lock(control);
        for (int suspend : {1, 0}) {
            if (!control.finish(pa_context_suspend_sink_by_index(control.context(), sinkIndex,
                                                                 suspend, nullptr, nullptr)))
                break;
        }
    }
    return std::move(silent.stream);
}

std::unique_ptr<Stream> withCompanion(std::unique_ptr<Stream> capture,
                                      std::unique_ptr<Stream> companion) {
    if (!companion) return capture;
    return std::make_unique<Companioned>(std::move(capture), std::move(companion));
}

}  // namespace vt::platform::pulse
