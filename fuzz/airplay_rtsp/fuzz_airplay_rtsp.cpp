// A receiver's RTSP (or an accessory's HTTP) answers, cut into reads of varying size, and the
// header values the tool reads out of them: the SETUP Transport ports, the Digest challenge, and
// DMAP items; and the same bytes as requests a receiver makes on the event connection, whose
// answers are one per request.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "airplay_tool/digest_auth.h"
#include "airplay_tool/dmap.h"
#include "airplay_tool/event_requests.h"
#include "airplay_tool/rtsp_message.h"
#include "airplay_tool/transport_header.h"

using namespace vt::airplay_tool;

// "RTSP/1.0 200 OK", a CSeq of at most nine digits and a zero length.
constexpr size_t kMaxEventAnswerBytes = 64;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    // The first byte picks how the bytes are cut into reads.
    const size_t step = 1 + data[0] * 31;
    std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);

    // An input that starts as HTTP is read as HTTP, chunked bodies and all.
    const bool http = input.substr(0, 5) == "HTTP/";
    RtspResponseReader reader(http ? kHttpVersion : kRtspVersion);
    RtspResponseReader::State state = RtspResponseReader::State::needMore;
    for (size_t at = 0; at < input.size() && state == RtspResponseReader::State::needMore;
         at += step)
        state = reader.append(input.substr(at, step));
    if (state == RtspResponseReader::State::complete) {
        const RtspResponse& r = reader.response();
        if (r.status < 0 || r.status > 999) std::abort();
        if (r.body.size() > kMaxRtspBodyBytes || r.headers.size() > kMaxRtspHeaders) std::abort();
        if (auto transport = r.header("transport")) {
            if (auto ports = parseTransportHeader(*transport)) {
                if (ports->audio < 1 || ports->audio > 65535 || ports->control < 1 ||
                    ports->control > 65535 || ports->timing < 0 || ports->timing > 65535)
                    std::abort();
            }
        }
        if (auto challenge = r.header("www-authenticate")) {
            if (auto parsed = parseDigestChallenge(*challenge)) {
                if (parsed->nonce.empty()) std::abort();
                (void)digestAuthorization("iTunes", "pw", *parsed, "ANNOUNCE", "rtsp://x/1");
            }
        }
        if (auto entries = parseDmapEntries(r.body)) {
            size_t total = 0;
            for (const auto& e : *entries) total += 8 + e.data.size();
            if (total != r.body.size()) std::abort();
        }
    }
    EventRequestReader events;
    std::string answers;
    for (size_t at = 0; at < input.size(); at += step)
        if (!events.append(input.substr(at, step), answers)) break;
    if (answers.size() > events.answered() * kMaxEventAnswerBytes) std::abort();
    (void)parseTransportHeader(input);
    (void)parseDigestChallenge(input);
    return 0;
}
