// Arbitrary text and bytes through every Sendspin parser, as either side would
// receive them, and audio frames on into a jitter buffer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "sendspin/jitter_buffer.h"
#include "sendspin/protocol.h"

namespace P = vt::sendspin::SendspinProtocol;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    if (auto message = P::parse(input)) {
        if (auto* time = std::get_if<P::ClientTime>(&*message)) {
            // The echo must carry exactly the integer that was read.
            const auto reply = P::parseServer(P::serverTime(time->clientTransmitted, 1, 2));
            if (!reply ||
                std::get<P::ServerTime>(*reply).clientTransmitted != time->clientTransmitted) {
                std::abort();
            }
        }
        if (auto* hello = std::get_if<P::ClientHello>(&*message)) {
            (void)P::serverHello(hello->clientID, hello->name, hello->supportedRoles);
        }
    }
    (void)P::parseServer(input);
    if (auto chunk = P::parseAudioChunk(input)) {
        if (chunk->second.size() + 9 != size) std::abort();
        vt::sendspin::SendspinJitterBuffer buffer;
        buffer.push(chunk->first, chunk->second);
        std::vector<float> out(2 * 64);
        buffer.read(out.data(), 64, chunk->first);
        for (float v : out) {
            if (!(v >= -1.0f && v < 1.0f)) std::abort();
        }
    }
    return 0;
}
