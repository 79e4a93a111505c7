#include "guard/capture_sinks.h"

#include <algorithm>
#include <string_view>

#include "engine/multi_output_engine.h"

namespace vt::guard {

using platform::SinkInfo;
using Engine = engine::MultiOutputEngine;

namespace {

bool startsWith(std::string_view s, std::string_view prefix) {
    return s.substr(0, prefix.size()) == prefix;
}

bool isOurs(const SinkInfo& sink) {
    return sink.name == Engine::kCaptureSinkName ||
           sink.description == Engine::kCaptureSinkDescription;
}

}  // namespace

std::optional<SinkInfo> findCaptureSink(const std::vector<SinkInfo>& sinks) {
    auto it = std::find_if(sinks.begin(), sinks.end(), isOurs);
    if (it == sinks.end())
        it = std::find_if(sinks.begin(), sinks.end(), [](const SinkInfo& s) {
            return startsWith(s.description, "BlackHole 2ch");
        });
    if (it == sinks.end()) return std::nullopt;
    return *it;
}

bool isCaptureSink(const SinkInfo& sink) {
    return isOurs(sink) || startsWith(sink.description, "BlackHole");
}

std::vector<SinkInfo> realOutputs(const std::vector<SinkInfo>& sinks) {
    std::vector<SinkInfo> out;
    for (const SinkInfo& s : sinks)
        if (s.channels > 0 && !isCaptureSink(s)) out.push_back(s);
    return out;
}

std::optional<SinkInfo> presentRealOutput(const std::vector<SinkInfo>& sinks,
                                          const std::optional<std::string>& name) {
    if (!name) return std::nullopt;
    for (const SinkInfo& s : sinks)
        if (s.name == *name) {
            if (s.channels == 0 || isCaptureSink(s)) return std::nullopt;
            return s;
        }
    return std::nullopt;
}

}  // namespace vt::guard
