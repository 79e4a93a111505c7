#include "guard/crash_recovery.h"

#include "guard/capture_sinks.h"
#include "guard/stream_moves.h"

namespace vt::guard {

std::optional<RestoredOutput> recoverAfterCrash(platform::AudioBackend& backend,
                                                settings::Settings& settings) {
    std::optional<std::string> pending = settings.pendingRestoreUID();
    if (!pending) return std::nullopt;
    settings.setPendingRestoreUID(std::nullopt);

    std::optional<platform::SinkInfo> sink = presentRealOutput(backend.sinks(), pending);
    if (!sink || !backend.setDefaultSink(sink->name)) return std::nullopt;
    giveStreamsBack(backend, {}, sink->name);
    return RestoredOutput{sink->description.empty() ? sink->name : sink->description, true};
}

}  // namespace vt::guard
