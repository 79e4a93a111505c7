#include "airplay_tool/sdp.h"

namespace vt::airplay_tool {

namespace {
// ALAC's magic-cookie fields after the frame length: compatible version,
// bit depth, rice history multiplier, initial history, rice limit, channels,
// max run, max frame bytes (0: unknown), average bit rate (0: unknown), rate.
constexpr int kAlacRiceHistoryMult = 40;
constexpr int kAlacRiceInitialHistory = 10;
constexpr int kAlacRiceLimit = 14;
constexpr int kAlacMaxRun = 255;
}  // namespace

std::string buildAnnounceSdp(const AnnounceDescription& d) {
    std::string s;
    s += "v=0\r\n";
    s += "o=iTunes " + d.sessionID + " 0 IN IP4 " + d.senderIP + "\r\n";
    s += "s=iTunes\r\n";
    s += "c=IN IP4 " + d.receiverIP + "\r\n";
    s += "t=0 0\r\n";
    s += "m=audio 0 RTP/AVP 96\r\n";
    s += "a=rtpmap:96 AppleLossless\r\n";
    s += "a=fmtp:96 " + std::to_string(d.framesPerPacket) + " 0 " + std::to_string(d.bitDepth) +
         " " + std::to_string(kAlacRiceHistoryMult) + " " +
         std::to_string(kAlacRiceInitialHistory) + " " + std::to_string(kAlacRiceLimit) + " " +
         std::to_string(d.channels) + " " + std::to_string(kAlacMaxRun) + " 0 0 " +
         std::to_string(d.sampleRate) + "\r\n";
    if (!d.rsaAesKey.empty() && !d.aesIV.empty()) {
        s += "a=rsaaeskey:" + d.rsaAesKey + "\r\n";
        s += "a=aesiv:" + d.aesIV + "\r\n";
    }
    return s;
}

std::optional<std::map<std::string, std::string>> parseSdp(std::string_view text) {
    if (text.size() > kMaxSdpBytes) return std::nullopt;
    std::map<std::string, std::string> out;
    while (!text.empty()) {
        const size_t nl = text.find('\n');
        std::string_view line = text.substr(0, nl);
        text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty()) continue;
        if (line.size() < 2 || line[1] != '=') return std::nullopt;
        const char kind = line[0];
        std::string_view value = line.substr(2);
        if (kind == 'a') {
            const size_t colon = value.find(':');
            out["a=" + std::string(value.substr(0, colon))] =
                colon == std::string_view::npos ? "" : std::string(value.substr(colon + 1));
        } else {
            out[std::string(1, kind)] = std::string(value);
        }
    }
    return out;
}

}  // namespace vt::airplay_tool
