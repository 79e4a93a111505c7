// How the sender reads the AirPlay tool's output: lines of text on standard
// output and standard error, each matched against one table in a fixed order.
// Pure logic on the sender's state, so that it is tested and fuzzed without
// a process; the sender holds its lock around `interpretChunk` and then acts
// on the effects.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "airplay/airplay_status.h"

namespace vt::airplay {

// What a sender knows of its tool's progress.
struct SenderState {
    std::string timing;  // asked for: "ptp" or "ntp"
    bool running = false;
    bool started = false;
    bool connected = false;
    bool clockReady = false;
    bool sawAuthRefusal = false;
    std::optional<std::string> effectiveTiming;
    std::optional<double> startUnixMs, firstWriteUnixMs, leadMs;
    double reanchorShiftMs = 0;
    std::optional<double> reportedLatencyMs;
};

// What the sender does after a chunk, in this order.
struct ChunkEffects {
    std::vector<AirPlayStatus> statuses;
    bool tryStart = false;     // maybeStart(false)
    bool armDeadline = false;  // maybeStart(true) 6 s from now, unless started
    bool cancelDeadline = false;
    bool publishLatency = false;
};

// A line longer than this is cut: the tool's lines are short, and nothing
// a line says may grow the sender's memory without bound.
inline constexpr size_t maxStatusLineBytes = 4096;

// The value of the first blank-separated token "name=..." of a line.
std::optional<std::string_view> statusField(std::string_view line, std::string_view name);

// Splits a chunk at line feeds, leaves out empty lines, and acts on each.
ChunkEffects interpretChunk(std::string_view chunk, SenderState& state);

// The latency to publish now, if any, by the rule that small changes (under
// 1 ms against the last value published) are not news. Updates the state.
std::optional<double> latencyToPublish(SenderState& state);

}  // namespace vt::airplay
