// Arbitrary bytes through the WebSocket frame parser in pieces; every frame it
// yields must re-encode to a frame that parses back the same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "net/websocket_frame.h"

namespace ws = vt::net::WebSocketFrame;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const uint64_t limit = data[0] < 128 ? 125 + data[0] * 512 : 4'194'304;
    const size_t step = 1 + data[1] * 13;
    std::string_view input(reinterpret_cast<const char*>(data) + 2, size - 2);

    // Half the inputs play a client's frames to a server, half the reverse.
    const ws::From from = (data[1] & 1) != 0 ? ws::From::client : ws::From::server;
    const auto mask = from == ws::From::client
                          ? std::optional<std::array<uint8_t, 4>>({data[0], data[1], 7, 9})
                          : std::nullopt;
    ws::Parser parser(limit, from);
    for (size_t at = 0; at < input.size(); at += step) {
        auto frames = parser.append(input.substr(at, step));
        if (!frames) {
            const auto code = parser.closeCode();
            if (!code || (*code != ws::kCloseProtocolError && *code != ws::kCloseTooBig))
                std::abort();
            return 0;
        }
        for (const auto& frame : *frames) {
            if (frame.payload.size() > limit || frame.opcode > 15) std::abort();
            // Control frames are small and whole.
            if ((frame.opcode & 8) != 0 && (frame.payload.size() > 125 || !frame.fin)) std::abort();
            ws::Parser again(limit, from);
            const auto back =
                again.append(ws::encode(frame.opcode, frame.payload, frame.fin, mask));
            if (!back || back->size() != 1 || (*back)[0].payload != frame.payload ||
                (*back)[0].fin != frame.fin || (*back)[0].opcode != frame.opcode) {
                std::abort();
            }
        }
        // Nothing beyond one frame's header and payload is ever held.
        if (parser.buffered() > limit + 14 + step) std::abort();
    }
    return 0;
}
