#include "remote/base64.h"

#include <openssl/evp.h>

#include <algorithm>
#include <climits>

namespace vt::remote {
namespace {

bool isAlphabet(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
}

}  // namespace

std::string base64Encode(const std::vector<uint8_t>& bytes) {
    if (bytes.empty()) return {};
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    // EVP_EncodeBlock takes an int length; the lines it is used for are far
    // below that, but split anyway so that any size is safe. Chunks are a
    // multiple of three bytes so they join without padding in between.
    constexpr std::size_t chunk = 3 * (1 << 20);
    std::size_t written = 0;
    for (std::size_t at = 0; at < bytes.size(); at += chunk) {
        const std::size_t n = std::min(chunk, bytes.size() - at);
        written += static_cast<std::size_t>(
            EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data() + written),
                            bytes.data() + at, static_cast<int>(n)));
    }
    out.resize(written);
    return out;
}

std::optional<std::vector<uint8_t>> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    if (!text.empty() && text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;
    for (std::size_t i = 0; i < text.size() - padding; ++i) {
        if (!isAlphabet(text[i])) return std::nullopt;
    }
    if (text.empty()) return std::vector<uint8_t>{};
    if (text.size() > static_cast<std::size_t>(INT_MAX)) return std::nullopt;
    std::vector<uint8_t> out(text.size() / 4 * 3);
    const int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                  static_cast<int>(text.size()));
    if (n < 0 || static_cast<std::size_t>(n) != out.size()) return std::nullopt;
    out.resize(out.size() - padding);
    return out;
}

}  // namespace vt::remote
