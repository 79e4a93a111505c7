// Arbitrary bytes through the WebSocket frame parser in pieces; every frame it
// yields must re-encode to a frame that parses back the same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "net/websocket_frame.h"

namespace ws = vt::net::WebSocketFrame;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const uint64_t limit = data[0] < 128 ? 125 + data[0] * 512 : 4'194'304;
    const size_t step = 1 + data[1] * 13;
    std::string_view input(reinterpret_cast<const char*>(data) + 2, size - 2);

    ws::Parser parser(limit);
    for (size_t at = 0; at < input.size(); at += step) {
        auto frames = parser.append(input.substr(at, step));
        if (!frames) return 0;
        for (const auto& frame : *frames) {
            if (frame.payload.size() > limit || frame.opcode > 15) std::abort();
            ws::Parser again(limit);
            const auto back =
                again.append(ws::encode(frame.opcode, frame.payload, frame.fin,
                                        std::array<uint8_t, 4>{data[0], data[1], 7, 9}));
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
