#include "guard/stream_moves.h"

#include <set>

#include "guard/capture_sinks.h"

namespace vt::guard {

using platform::SinkInfo;

MovedStreams takeStreams(platform::AudioBackend& backend, const SinkInfo& capture,
                         const std::optional<std::string>& from) {
    MovedStreams moved;
    if (!from || *from == capture.name) return moved;
    std::optional<SinkInfo> source = backend.sinkByName(*from);
    if (!source) return moved;
    for (const platform::SinkInputInfo& in : backend.sinkInputs()) {
        if (in.ours || in.sink != source->id) continue;
        if (backend.moveSinkInput(in.index, capture.name)) moved[in.index] = source->name;
    }
    return moved;
}

void giveStreamsBack(platform::AudioBackend& backend, const MovedStreams& moved,
                     const std::optional<std::string>& fallback) {
    const std::vector<SinkInfo> sinks = backend.sinks();
    std::set<platform::DeviceId> captures;
    for (const SinkInfo& s : sinks)
        if (isCaptureSink(s)) captures.insert(s.id);

    for (const platform::SinkInputInfo& in : backend.sinkInputs()) {
        if (in.ours || !captures.contains(in.sink)) continue;
        std::optional<std::string> target;
        if (auto it = moved.find(in.index); it != moved.end())
            if (auto origin = presentRealOutput(sinks, it->second)) target = origin->name;
        if (!target) target = fallback;
        // A failed move is left to the guard, which comes back to it.
        if (target) backend.moveSinkInput(in.index, *target);
    }
}

}  // namespace vt::guard
