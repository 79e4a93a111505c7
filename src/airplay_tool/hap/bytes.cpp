#include "airplay_tool/hap/bytes.h"

namespace vt::hap {

namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

Bytes bytesOf(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

std::string toHex(const Bytes& bytes, bool upper) {
    const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (uint8_t b : bytes) {
        out += digits[b >> 4];
        out += digits[b & 0x0f];
    }
    return out;
}

std::optional<Bytes> fromHex(std::string_view hex) {
    if (hex.size() % 2 != 0) return std::nullopt;
    Bytes out(hex.size() / 2);
    for (size_t i = 0; i < out.size(); ++i) {
        const int hi = hexValue(hex[2 * i]);
        const int lo = hexValue(hex[2 * i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        out[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return out;
}

}  // namespace vt::hap
