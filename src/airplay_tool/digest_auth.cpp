#include "airplay_tool/digest_auth.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cctype>
#include <map>

namespace vt::airplay_tool {

namespace {

constexpr size_t kMaxChallengeParams = 16;

bool startsWithNoCase(std::string_view s, std::string_view prefix) {
    if (s.size() < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(s[i])) !=
            std::tolower(static_cast<unsigned char>(prefix[i])))
            return false;
    return true;
}

}  // namespace

std::optional<DigestChallenge> parseDigestChallenge(std::string_view header) {
    while (!header.empty() && header.front() == ' ') header.remove_prefix(1);
    if (!startsWithNoCase(header, "Digest ")) return std::nullopt;
    header.remove_prefix(7);
    std::map<std::string, std::string> params;
    while (!header.empty()) {
        while (!header.empty() && (header.front() == ' ' || header.front() == ','))
            header.remove_prefix(1);
        if (header.empty()) break;
        const size_t eq = header.find('=');
        if (eq == std::string_view::npos || eq == 0) return std::nullopt;
        std::string name(header.substr(0, eq));
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        header.remove_prefix(eq + 1);
        std::string value;
        if (!header.empty() && header.front() == '"') {
            const size_t close = header.find('"', 1);
            if (close == std::string_view::npos) return std::nullopt;
            value = std::string(header.substr(1, close - 1));
            header.remove_prefix(close + 1);
        } else {
            const size_t comma = header.find(',');
            value = std::string(header.substr(0, comma));
            header.remove_prefix(comma == std::string_view::npos ? header.size() : comma);
        }
        if (params.size() >= kMaxChallengeParams) return std::nullopt;
        params[name] = value;
    }
    auto nonce = params.find("nonce");
    if (nonce == params.end() || nonce->second.empty()) return std::nullopt;
    return DigestChallenge{params.count("realm") ? params["realm"] : "", nonce->second};
}

std::string md5Hex(std::string_view text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr);
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        out += kHex[digest[i] >> 4];
        out += kHex[digest[i] & 15];
    }
    return out;
}

std::string digestResponse(const std::string& user, const std::string& password,
                           const DigestChallenge& challenge, const std::string& method,
                           const std::string& uri) {
    const std::string ha1 = md5Hex(user + ":" + challenge.realm + ":" + password);
    const std::string ha2 = md5Hex(method + ":" + uri);
    return md5Hex(ha1 + ":" + challenge.nonce + ":" + ha2);
}

std::string digestAuthorization(const std::string& user, const std::string& password,
                                const DigestChallenge& challenge, const std::string& method,
                                const std::string& uri) {
    return "Digest username=\"" + user + "\", realm=\"" + challenge.realm + "\", nonce=\"" +
           challenge.nonce + "\", uri=\"" + uri + "\", response=\"" +
           digestResponse(user, password, challenge, method, uri) + "\"";
}

}  // namespace vt::airplay_tool
