// A receiver's binary plists as the AirPlay 2 route reads them: its answer
// to GET /info and to the session and stream SETUPs. Any bytes after the
// binary plist magic go to libplist.
#include <cstddef>
#include <cstdint>
#include <string>

#include "airplay_tool/receiver_info.h"
#include "airplay_tool/session_plists.h"

using namespace vt::airplay_tool;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string body = "bplist00" + std::string(reinterpret_cast<const char*>(data), size);
    if (auto info = parseReceiverInfo(body)) (void)info->wantsPin();
    if (auto session = parseSessionSetupReply(body)) (void)session->eventPort;
    if (auto stream = parseStreamSetupReply(body)) (void)stream->latencyMinFrames;
    return 0;
}
