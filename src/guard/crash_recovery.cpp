#include "guard/crash_recovery.h"

#include "devices/audio_device.h"
#include "guard/capture_sinks.h"
#include "guard/speaker_volumes.h"
#include "guard/stream_moves.h"

namespace vt::guard {

namespace {

// The dead run's capture sink outlives it as a module of the server. Once
// nothing plays into it any more it is only clutter in the sound settings,
// and the next start makes a fresh one.
void dropLeftoverCaptureSink(platform::AudioBackend& backend) {
    std::optional<platform::SinkInfo> capture = findCaptureSink(backend.sinks());
    if (!capture || capture->name != devices::captureDeviceUID) return;
    // Only a sink we made ourselves: by our mark, or (made by a version that
    // did not mark it) a null sink on PulseAudio. On PipeWire every sink's
    // driver reads "PipeWire", so the driver alone tells nothing.
    const bool marked = capture->properties.contains(platform::kOwnSinkProperty);
    if (capture->ownerModule == UINT32_MAX ||
        (!marked && capture->driver.find("null-sink") == std::string::npos))
        return;
    if (backend.defaultSinkName() == capture->name) return;
    for (const platform::SinkInputInfo& in : backend.sinkInputs())
        if (in.sink == capture->id) return;
    backend.unloadModule(capture->ownerModule);
}

}  // namespace

std::optional<RestoredOutput> recoverAfterCrash(platform::AudioBackend& backend,
                                                settings::Settings& settings) {
    // The speakers' own volumes are owed whether or not the output is.
    SpeakerVolumes(settings).giveBackAll(backend);
    std::optional<std::string> pending = settings.pendingRestoreUID();
    if (!pending) return std::nullopt;
    settings.setPendingRestoreUID(std::nullopt);

    std::optional<platform::SinkInfo> sink = presentRealOutput(backend.sinks(), pending);
    if (!sink || !backend.setDefaultSink(sink->name)) return std::nullopt;
    giveStreamsBack(backend, {}, sink->name);
    dropLeftoverCaptureSink(backend);
    return RestoredOutput{sink->description.empty() ? sink->name : sink->description, true};
}

}  // namespace vt::guard
