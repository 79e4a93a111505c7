#include "guard/output_restorer.h"

#include <chrono>
#include <thread>

#include "engine/engine_error.h"
#include "engine/multi_output_engine.h"
#include "guard/capture_sinks.h"

namespace vt::guard {

using platform::SinkInfo;
using Engine = engine::MultiOutputEngine;

namespace {

std::optional<SinkInfo> byName(const std::vector<SinkInfo>& sinks,
                               const std::optional<std::string>& name) {
    if (!name) return std::nullopt;
    for (const SinkInfo& s : sinks)
        if (s.name == *name) return s;
    return std::nullopt;
}

// Carries a level across the change of default sink, so that the music does
// not jump when the other sink takes over.
void copyVolume(platform::AudioBackend& backend, const SinkInfo& from, const SinkInfo& to) {
    if (from.hasVolume && to.hasVolume) backend.setSinkVolume(to.id, from.volumeScalar);
}

}  // namespace

OutputRestorer::OutputRestorer(platform::AudioBackend& backend, settings::Settings& settings)
    : backend_(backend), settings_(settings) {}

SinkInfo OutputRestorer::ensureCaptureSink() {
    if (auto found = findCaptureSink(backend_.sinks())) return *found;
    std::optional<uint32_t> module = backend_.loadNullSink(
        Engine::kCaptureSinkName, Engine::kCaptureSinkDescription, Engine::kCaptureRate, 2, true);
    if (!module) throw engine::EngineError::captureSinkMissing();
    // The server answers the load before its sink list shows the sink.
    for (int i = 0; i < 200; ++i) {
        if (auto sink = backend_.sinkByName(Engine::kCaptureSinkName)) {
            madeModule_ = module;
            return *sink;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    backend_.unloadModule(*module);
    throw engine::EngineError::captureSinkMissing();
}

void OutputRestorer::dropCaptureSinkWeMade() {
    if (!madeModule_) return;
    backend_.unloadModule(*madeModule_);
    madeModule_.reset();
}

void OutputRestorer::switchToCaptureSink() {
    prepareCaptureSink();
    takeOutput();
}

void OutputRestorer::prepareCaptureSink() {
    const bool made = !findCaptureSink(backend_.sinks());
    const SinkInfo capture = ensureCaptureSink();
    const std::vector<SinkInfo> sinks = backend_.sinks();

    // Taken again after the server came back: what is owed is still the sink
    // taken the first time, whatever the restarted server made the default.
    const std::optional<std::string> owedName = savedDefaultUID_;
    const std::optional<SinkInfo> owed = presentRealOutput(sinks, savedDefaultUID_);
    savedDefaultUID_ = backend_.defaultSinkName();
    std::optional<SinkInfo> saved = owed ? owed : byName(sinks, savedDefaultUID_);
    if (saved && isCaptureSink(*saved)) {
        // An earlier run left the default on the capture sink: give back what
        // it should have given back, not the capture sink itself.
        saved = presentRealOutput(sinks, settings_.pendingRestoreUID());
        if (!saved) saved = presentRealOutput(sinks, settings_.lastOutputUID());
        if (!saved) {
            std::vector<SinkInfo> outputs = realOutputs(sinks);
            if (!outputs.empty()) saved = outputs.front();
        }
        savedDefaultUID_ = saved ? std::optional(saved->name) : std::nullopt;
    }
    if (saved && !isCaptureSink(*saved)) {
        savedDefaultUID_ = saved->name;
        settings_.setPendingRestoreUID(saved->name);
        settings_.setLastOutputUID(saved->name);
        copyVolume(backend_, *saved, capture);
        // A server that dies before the first tick must still find it.
        // (After a restart it is the one noted before, below.)
        if (made && saved->hasVolume && capture.hasVolume && !owedName)
            systemVolume_ = saved->volumeScalar;
    }

    // The owed sink may not be back yet (a restarted server makes its sinks
    // one by one): it stays owed, not the restarted server's default.
    if (owedName && !owed) {
        savedDefaultUID_ = owedName;
        settings_.setPendingRestoreUID(owedName);
    }
    // Taken again after a restart: the system volume carries on as it was.
    if (made && owedName && systemVolume_ && capture.hasVolume)
        backend_.setSinkVolume(capture.id, *systemVolume_);
}

void OutputRestorer::takeOutput() {
    const SinkInfo capture = ensureCaptureSink();
    // What played on the default sink until now; the server may move the
    // streams that follow the default itself, the rest are moved here.
    const std::optional<std::string> previousDefault = backend_.defaultSinkName();
    backend_.setDefaultSink(capture.name);
    MovedStreams moved = takeStreams(backend_, capture, previousDefault);
    // They followed the default, so they follow it back: to the sink that is
    // owed, even when a restarted server had put them elsewhere meanwhile.
    if (savedDefaultUID_)
        for (auto& [index, origin] : moved) origin = *savedDefaultUID_;
    moved_.insert(moved.begin(), moved.end());
}

void OutputRestorer::restore() {
    const std::vector<SinkInfo> sinks = backend_.sinks();
    std::optional<SinkInfo> target = byName(sinks, savedDefaultUID_);
    if (!target) target = presentRealOutput(sinks, settings_.pendingRestoreUID());
    bool givenBack = false;
    if (target) {
        if (auto capture = findCaptureSink(sinks)) copyVolume(backend_, *capture, *target);
        givenBack = backend_.setDefaultSink(target->name);
    }
    giveStreamsBack(backend_, moved_,
                    target ? std::optional(target->name) : std::optional<std::string>());

    savedDefaultUID_.reset();
    moved_.clear();
    systemVolume_.reset();
    if (givenBack) {
        settings_.setPendingRestoreUID(std::nullopt);
        dropCaptureSinkWeMade();
    } else if (!backend_.connected()) {
        // Nothing to give back to: the server is away, and a server that
        // starts again makes its own default (our capture sink went with
        // it). This was no crash, and the next launch must not say so.
        settings_.setPendingRestoreUID(std::nullopt);
        madeModule_.reset();
    }
}

void OutputRestorer::noteSystemVolume() {
    if (const std::optional<SinkInfo> capture = findCaptureSink(backend_.sinks()))
        systemVolume_ = capture->volumeScalar;
}

void OutputRestorer::serverLost() {
    // The streams' indices and our module died with the server; the sink to
    // give back is still owed.
    moved_.clear();
    madeModule_.reset();
}

std::optional<std::string> OutputRestorer::handBackIfStranded() {
    if (!defaultIsCapture()) return std::nullopt;
    const std::vector<SinkInfo> sinks = backend_.sinks();
    std::optional<SinkInfo> target = presentRealOutput(sinks, settings_.pendingRestoreUID());
    if (!target) {
        std::vector<SinkInfo> outputs = realOutputs(sinks);
        if (outputs.empty()) return std::nullopt;
        target = outputs.front();
    }
    // A refused write is tried again on the guard's next pass.
    if (!backend_.setDefaultSink(target->name)) return std::nullopt;
    giveStreamsBack(backend_, moved_, target->name);
    moved_.clear();
    settings_.setPendingRestoreUID(std::nullopt);
    dropCaptureSinkWeMade();
    return target->description.empty() ? target->name : target->description;
}

bool OutputRestorer::captureExists() {
    return findCaptureSink(backend_.sinks()).has_value();
}

bool OutputRestorer::defaultIsCapture() {
    std::optional<SinkInfo> capture = findCaptureSink(backend_.sinks());
    std::optional<std::string> current = backend_.defaultSinkName();
    return capture && current && *current == capture->name;
}

}  // namespace vt::guard
