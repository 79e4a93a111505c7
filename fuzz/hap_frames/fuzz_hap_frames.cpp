// The encrypted channel's frame reader, fed what a receiver may send in
// reads of any size; and the same bytes sealed by us, which must come back
// whole however they are cut.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "airplay_tool/hap/channel_cipher.h"

using namespace vt::hap;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const size_t step = 1 + data[0] * 7;
    const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
    const Bytes key(32, 0x5a);

    FrameOpener raw(key);
    std::string plain;
    for (size_t at = 0; at < input.size(); at += step)
        if (raw.append(input.substr(at, step), plain) == FrameOpener::State::broken) break;
    if (plain.size() > input.size()) std::abort();

    FrameSealer sealer(key);
    std::string wire;
    sealer.seal(input, wire);
    FrameOpener opener(key);
    std::string back;
    for (size_t at = 0; at < wire.size(); at += step)
        if (opener.append(std::string_view(wire).substr(at, step), back) != FrameOpener::State::ok)
            std::abort();
    if (back != input) std::abort();
    return 0;
}
