// The AirPlay tool's output as the sender reads it, whatever the tool (or
// something in its place) prints. The first byte picks the timing asked
// for; the rest arrives in chunks split at every 0xFF byte. Whatever the
// lines say: a refused or ended sender never starts again, a failure's words
// are one bounded line, and the latency is a number.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "airplay/status_table.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace vt::airplay;
    if (size == 0) return 0;
    SenderState state;
    state.timing = (data[0] & 1) ? "ptp" : "ntp";
    state.running = true;
    state.firstWriteUnixMs = 1000;
    std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
    while (!rest.empty()) {
        const size_t cut = rest.find('\xff');
        const std::string_view chunk = rest.substr(0, cut);
        rest = cut == std::string_view::npos ? std::string_view() : rest.substr(cut + 1);
        const bool wasRunning = state.running;
        const ChunkEffects effects = interpretChunk(chunk, state);
        if (!wasRunning && state.running) std::abort();
        for (const AirPlayStatus& s : effects.statuses)
            if (s.words.size() > maxStatusLineBytes || s.words.find('\n') != std::string::npos)
                std::abort();
        if (auto ms = latencyToPublish(state); ms && !std::isfinite(*ms)) std::abort();
    }
    return 0;
}
