// RTSP Digest authentication as AirPlay 1 receivers ask for it: the RFC 2069
// form, MD5 without qop, hex in lower case. MD5 comes from OpenSSL.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vt::airplay_tool {

struct DigestChallenge {
    std::string realm;
    std::string nonce;
};

// Reads `Digest realm="..", nonce=".."` (other parameters ignored). Nothing
// for another scheme, a missing nonce, or an unterminated quote.
std::optional<DigestChallenge> parseDigestChallenge(std::string_view header);

std::string md5Hex(std::string_view text);

// The response value: MD5(HA1 ":" nonce ":" HA2).
std::string digestResponse(const std::string& user, const std::string& password,
                           const DigestChallenge& challenge, const std::string& method,
                           const std::string& uri);

// The whole Authorization header value for one request.
std::string digestAuthorization(const std::string& user, const std::string& password,
                                const DigestChallenge& challenge, const std::string& method,
                                const std::string& uri);

}  // namespace vt::airplay_tool
