#include "calibration/pulse/pulse_microphone.h"

#include <pulse/pulseaudio.h>

#include <optional>

#include "calibration/pulse/pulse_mic_capture.h"
#include "calibration/pulse/stream_priority.h"
#include "platform/pulse/pulse_loop.h"

namespace vt::calibration {

namespace {

using platform::pulse::PulseLoop;

// A source whose rate reads as 0 is taken to run at this.
constexpr double kFallbackRate = 48000;

struct SourceFacts {
    bool found = false;
    bool monitor = false;
    double rate = 0;
};

std::optional<std::string> defaultSourceName(PulseLoop& loop) {
    std::optional<std::string> name;
    PulseLoop::Lock lock(loop);
    loop.finish(pa_context_get_server_info(
        loop.context(),
        [](pa_context*, const pa_server_info* info, void* out) {
            if (info && info->default_source_name && *info->default_source_name)
                *static_cast<std::optional<std::string>*>(out) = info->default_source_name;
        },
        &name));
    return name;
}

SourceFacts sourceFacts(PulseLoop& loop, const std::string& name) {
    SourceFacts facts;
    PulseLoop::Lock lock(loop);
    loop.finish(pa_context_get_source_info_by_name(
        loop.context(), name.c_str(),
        [](pa_context*, const pa_source_info* info, int, void* out) {
            if (!info) return;
            auto* f = static_cast<SourceFacts*>(out);
            f->found = true;
            f->monitor = info->monitor_of_sink != PA_INVALID_INDEX;
            f->rate = info->sample_spec.rate;
        },
        &facts));
    return facts;
}

MicOpenResult openMicrophone() {
    MicOpenResult result;
    auto loop = PulseLoop::connect("Vellatone microphone");
    if (!loop) {
        result.error = MicOpenError::openFailed;
        result.detail = "no sound server";
        return result;
    }
    raiseStreamPriority(*loop);
    const auto name = defaultSourceName(*loop);
    const SourceFacts facts = name ? sourceFacts(*loop, *name) : SourceFacts{};
    if (!facts.found || facts.monitor) {
        result.error = MicOpenError::noInputDevice;
        result.detail = name ? (facts.found ? *name + " is a monitor" : *name + " is gone")
                             : "no default source";
        return result;
    }
    auto mic = std::make_unique<PulseMicCapture>(loop, facts.rate > 0 ? facts.rate : kFallbackRate);
    if (!mic->open(*name, result.detail)) {
        result.error = MicOpenError::openFailed;
        return result;
    }
    result.mic = std::move(mic);
    return result;
}

}  // namespace

void PulseMicrophone::openDefault(std::function<void(MicOpenResult)> done) {
    opener_.run<MicOpenResult>(&openMicrophone, std::move(done));
}

}  // namespace vt::calibration
