// A TXT record as any device on the network may send it, and a Cast device
// made from it. What is kept must be bounded, lower-case-keyed, valid UTF-8
// and free of control characters, whatever came in.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "discovery/cast_device.h"
#include "discovery/txt_record.h"
#include "net/text.h"

namespace {

void expectClean(const std::string& text) {
    if (!vt::net::isValidUtf8(text)) std::abort();
    for (unsigned char c : text)
        if (c < 0x20 || c == 0x7F) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace vt::discovery;
    const TxtRecord record = parseTxtWire(data, size);
    if (record.size() > maxTxtKeys) std::abort();
    for (const auto& [key, value] : record) {
        if (key.empty() || key.size() > maxTxtKeyBytes) std::abort();
        for (char c : key)
            if (c >= 'A' && c <= 'Z') std::abort();
        expectClean(key);
        expectClean(value);
    }
    if (auto device = CastDevice::from("instance", record)) {
        if (device->id.empty() || device->name.empty()) std::abort();
        if (device->busyWith && device->busyWith->empty()) std::abort();
    }
    return 0;
}
