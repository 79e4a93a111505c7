// Whatever arrives on the PTP ports or the shared socket. A datagram that
// reads as a message writes back to the same message; a follower fed any
// sequence of them keeps an offset it could have measured (never from a
// clock it does not follow); the shared socket's lines parse or are refused.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "airplay_tool/ptp/ptp_follower.h"
#include "airplay_tool/ptp/ptp_grandmaster.h"
#include "airplay_tool/ptp/ptp_message.h"
#include "airplay_tool/ptp/ptp_shared.h"

using namespace vt::airplay_tool::ptp;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    (void)parseSharedStatus(text);
    (void)parseSharedRequest(text);

    // Datagrams cut at every 0xFF 0xFF; each arrives a little later than the last.
    Follower follower({clockIdentityFor("AA:BB:CC:DD:EE:FF"), 1}, 0);
    int64_t now = 0;
    size_t at = 0;
    while (at < size) {
        size_t end = at;
        while (end + 1 < size && !(data[end] == 0xFF && data[end + 1] == 0xFF)) ++end;
        if (end + 1 >= size) end = size;
        const std::span<const uint8_t> datagram(data + at, end - at);
        at = end + 2;
        now += 1'000'000;
        const auto message = parseMessage(datagram);
        if (!message) continue;
        if (bodyBytes(message->type)) {
            const auto again = parseMessage(encodeMessage(*message));
            if (!again || !(*again == *message)) std::abort();
        }
        follower.receive(*message, now);
        if (auto request = follower.delayRequest(now))
            follower.delayRequestSent(request->sequenceId, now);
        (void)follower.state(now);
    }
    if (follower.offsetNs() && !follower.master()) std::abort();
    return 0;
}
