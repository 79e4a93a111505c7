#include "airplay_tool/base64.h"

#include <openssl/evp.h>

namespace vt::airplay_tool {

std::string base64Unpadded(std::span<const uint8_t> bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes.data(),
                                  static_cast<int>(bytes.size()));
    out.resize(static_cast<size_t>(n));
    while (!out.empty() && out.back() == '=') out.pop_back();
    return out;
}

std::optional<std::vector<uint8_t>> base64Decode(std::string_view text) {
    std::string padded(text);
    while (!padded.empty() && padded.back() == '=') padded.pop_back();
    const size_t missing = (4 - padded.size() % 4) % 4;
    if (missing == 3) return std::nullopt;
    padded.append(missing, '=');
    std::vector<uint8_t> out(3 * (padded.size() / 4) + 1);
    const int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(padded.data()),
                                  static_cast<int>(padded.size()));
    if (n < 0) return std::nullopt;
    // EVP_DecodeBlock counts the padding as zero bytes.
    out.resize(static_cast<size_t>(n) - missing);
    return out;
}

}  // namespace vt::airplay_tool
