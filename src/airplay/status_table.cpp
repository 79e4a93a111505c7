#include "airplay/status_table.h"

#include <charconv>
#include <cmath>
#include <cstdlib>

namespace vt::airplay {

namespace {

constexpr double smallestLatencyNewsMs = 1.0;

bool startsWith(std::string_view s, std::string_view p) {
    return s.substr(0, p.size()) == p;
}
bool contains(std::string_view s, std::string_view p) {
    return s.find(p) != std::string_view::npos;
}

std::optional<double> number(std::optional<std::string_view> text) {
    if (!text || text->empty()) return std::nullopt;
    double value = 0;
    auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (error != std::errc() || end != text->data() + text->size() || !std::isfinite(value))
        return std::nullopt;
    return value;
}

void refuse(SenderState& s, ChunkEffects& e, AirPlayStatus::Kind kind) {
    s.sawAuthRefusal = true;
    s.running = false;
    e.statuses.push_back({kind, {}});
}

// Acts on one line; false when the rest of the chunk must not be read.
bool interpretLine(std::string_view line, SenderState& s, ChunkEffects& e) {
    using Kind = AirPlayStatus::Kind;
    if (contains(line, "code=auth_failed")) {
        refuse(s, e, Kind::passwordRequired);
    } else if (contains(line, "http=403")) {
        refuse(s, e, Kind::forbidden);
    } else if (contains(line, "code=auth_required")) {
        refuse(s, e, Kind::authRequired);
    } else if (contains(line, "code=connect_failed") && contains(line, "http=400")) {
        refuse(s, e, Kind::needsApproval);
    } else if (startsWith(line, "[STATUS] route")) {
        if (auto t = statusField(line, "timing")) s.effectiveTiming = std::string(*t);
        // The route comes on the other stream than "connected", in either
        // order: NTP may start as soon as both are known.
        if (s.effectiveTiming == "ntp") e.tryStart = true;
    } else if (startsWith(line, "[STATUS] latency")) {
        if (auto lead = number(statusField(line, "lead_ms")); lead && *lead >= 0) s.leadMs = *lead;
    } else if (startsWith(line, "[STATUS] clock_ready")) {
        if (auto mode = statusField(line, "mode")) s.effectiveTiming = std::string(*mode);
        if (s.timing == "ptp" && s.effectiveTiming == "ntp" && s.running) {
            s.running = false;
            e.statuses.push_back({Kind::clockUnshared, {}});
            return false;
        }
        if (s.effectiveTiming == "ntp") e.tryStart = true;
        const auto state = statusField(line, "state");
        if (state == "ready") {
            s.clockReady = true;
            e.tryStart = true;
        } else if (state == "stalled" && !s.started && s.effectiveTiming == "ptp") {
            e.cancelDeadline = true;
            e.armDeadline = false;
            e.statuses.push_back({Kind::clockStalled, {}});
        }
    } else if (contains(line, "[STATUS] connected")) {
        s.connected = true;
        e.tryStart = true;
        if (!s.started) e.armDeadline = true;
    } else if (startsWith(line, "[STATUS] started")) {
        s.reanchorShiftMs = 0;
        if (auto at = number(statusField(line, "at_unix_ms")); at && *at > 0) s.startUnixMs = *at;
        e.statuses.push_back({Kind::streaming, {}});
        e.publishLatency = true;
    } else if (startsWith(line, "[STATUS] REANCHOR")) {
        const auto frames = number(statusField(line, "total_shifted_frames"));
        const auto rate = number(statusField(line, "sample_rate"));
        if (frames && rate && *rate > 0 && std::isfinite(*frames / *rate * 1000.0))
            s.reanchorShiftMs = *frames / *rate * 1000.0;
        e.publishLatency = true;
    } else if (contains(line, "[ERROR]") || contains(line, "[STATUS] error")) {
        // After a refusal the tool says more; the refusal is what counts.
        if (!s.sawAuthRefusal) e.statuses.push_back(AirPlayStatus::failed(std::string(line)));
    }
    return true;
}

}  // namespace

std::optional<std::string_view> statusField(std::string_view line, std::string_view name) {
    size_t at = 0;
    while (at < line.size()) {
        while (at < line.size() && (line[at] == ' ' || line[at] == '\t')) ++at;
        size_t end = at;
        while (end < line.size() && line[end] != ' ' && line[end] != '\t') ++end;
        const std::string_view token = line.substr(at, end - at);
        if (token.size() > name.size() && startsWith(token, name) && token[name.size()] == '=')
            return token.substr(name.size() + 1);
        at = end;
    }
    return std::nullopt;
}

ChunkEffects interpretChunk(std::string_view chunk, SenderState& state) {
    ChunkEffects effects;
    size_t at = 0;
    while (at < chunk.size()) {
        size_t end = chunk.find('\n', at);
        if (end == std::string_view::npos) end = chunk.size();
        std::string_view line = chunk.substr(at, end - at);
        at = end + 1;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty()) continue;
        if (line.size() > maxStatusLineBytes) line = line.substr(0, maxStatusLineBytes);
        if (!interpretLine(line, state, effects)) break;
    }
    return effects;
}

std::optional<double> latencyToPublish(SenderState& s) {
    double base = 0;
    if (s.effectiveTiming == "ntp") {
        if (!s.leadMs) return std::nullopt;
        base = *s.leadMs;
    } else {
        if (!s.startUnixMs || !s.firstWriteUnixMs) return std::nullopt;
        base = std::max(0.0, *s.startUnixMs - *s.firstWriteUnixMs);
    }
    const double value = base + s.reanchorShiftMs;
    if (!std::isfinite(value)) return std::nullopt;
    if (s.reportedLatencyMs && std::abs(value - *s.reportedLatencyMs) < smallestLatencyNewsMs)
        return std::nullopt;
    s.reportedLatencyMs = value;
    return value;
}

}  // namespace vt::airplay
