// Feeds arbitrary bytes to the Cast frame reader in reads of varying size and
// to the message decoder, checking what the channel relies on: a reader never
// holds more than one frame's worth past a read, and whatever decodes encodes
// and decodes back to the same message.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "cast/cast_frame_reader.h"
#include "cast/cast_message.h"

using vt::cast::CastFrameReader;
using vt::cast::CastMessage;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    // The first byte picks how the bytes are cut into reads.
    const size_t step = 1 + data[0] * 31;
    std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);

    if (auto message = CastMessage::decode(input)) {
        auto again = CastMessage::decode(message->encoded());
        if (!again || !(*again == *message)) std::abort();
        (void)message->json();
    }

    CastFrameReader reader;
    for (size_t at = 0; at < input.size(); at += step) {
        auto messages = reader.append(input.substr(at, step));
        if (!messages) {
            if (reader.append("x")) std::abort();  // broken stays broken
            break;
        }
        if (reader.buffered() > vt::cast::kMaxCastFrameBytes + 4) std::abort();
        for (const auto& m : *messages) (void)m.type();
    }
    return 0;
}
