// A pairing answer as an accessory may send it: TLV8 decoded, its joined
// values re-encoded and decoded again to the same items.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "airplay_tool/hap/tlv8.h"

using namespace vt::hap;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto decoded = Tlv8::decode(data, size);
    if (!decoded) return 0;
    size_t total = 0;
    for (const auto& item : decoded->items()) total += item.value.size();
    if (total > size) std::abort();
    (void)decoded->byte(tlv::state);
    (void)decoded->find(tlv::encryptedData);
    const Bytes again = decoded->encode();
    auto back = Tlv8::decode(again);
    if (!back || back->items().size() < decoded->items().size()) std::abort();
    return 0;
}
