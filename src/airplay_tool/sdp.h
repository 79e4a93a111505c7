// The session description an AirPlay 1 ANNOUNCE carries: ALAC, 352 frames a
// packet, 16-bit stereo at 44.1 kHz, and the wrapped AES key when encrypted.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace vt::airplay_tool {

struct AnnounceDescription {
    std::string sessionID;  // decimal, also in the request URL
    std::string senderIP;
    std::string receiverIP;
    int framesPerPacket = 352;
    int sampleRate = 44100;
    int channels = 2;
    int bitDepth = 16;
    // Both base64 without padding, or both empty for a plain stream.
    std::string rsaAesKey;
    std::string aesIV;
};

std::string buildAnnounceSdp(const AnnounceDescription& d);

// The attributes of a description ("a=name:value" becomes name -> value) and
// its "v", "o", "s", "c", "t" and "m" lines under those letters. Nothing for
// text over the size bound or a line that is not "x=...". Used to check a
// description as a receiver reads it.
inline constexpr size_t kMaxSdpBytes = 16 * 1024;
std::optional<std::map<std::string, std::string>> parseSdp(std::string_view text);

}  // namespace vt::airplay_tool
