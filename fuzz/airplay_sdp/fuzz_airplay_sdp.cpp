// Session descriptions: any text through the reader, and descriptions we
// build from fuzzed fields read back to what went in.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "airplay_tool/sdp.h"

using namespace vt::airplay_tool;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    if (auto parsed = parseSdp(input)) {
        if (input.size() > kMaxSdpBytes) std::abort();
        for (const auto& [key, value] : *parsed)
            if (key.empty() || value.find('\n') != std::string::npos) std::abort();
    }
    // Fields without line breaks survive a round trip.
    std::string clean;
    for (char c : input)
        if (c != '\r' && c != '\n') clean += c;
    const size_t third = clean.size() / 3;
    AnnounceDescription d;
    d.sessionID = "1";
    d.senderIP = clean.substr(0, third);
    d.rsaAesKey = clean.substr(third, third);
    d.aesIV = clean.substr(2 * third);
    auto back = parseSdp(buildAnnounceSdp(d));
    if (!back && buildAnnounceSdp(d).size() <= kMaxSdpBytes) std::abort();
    if (back && (*back)["a=fmtp"] != "96 352 0 16 40 10 14 2 255 0 0 44100") std::abort();
    if (back && !d.rsaAesKey.empty() && !d.aesIV.empty() && (*back)["a=aesiv"] != d.aesIV)
        std::abort();
    return 0;
}
