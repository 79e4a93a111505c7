// A receiver's answer to GET /info as the AirPlay 2 route reads it: any
// bytes after the binary plist magic go to libplist.
#include <cstddef>
#include <cstdint>
#include <string>

#include "airplay_tool/receiver_info.h"

using namespace vt::airplay_tool;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string body = "bplist00" + std::string(reinterpret_cast<const char*>(data), size);
    if (auto info = parseReceiverInfo(body)) (void)info->wantsPin();
    return 0;
}
