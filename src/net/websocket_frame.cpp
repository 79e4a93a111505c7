#include "net/websocket_frame.h"

#include <openssl/evp.h>
#include <openssl/sha.h>

namespace vt::net::WebSocketFrame {

namespace {

constexpr std::string_view kHandshakeGuid = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";

std::string_view trimmed(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return text;
}

}  // namespace

std::string acceptKey(std::string_view key) {
    const std::string input = std::string(trimmed(key)) + std::string(kHandshakeGuid);
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(input.data()), input.size(), digest);
    unsigned char encoded[4 * ((SHA_DIGEST_LENGTH + 2) / 3) + 1];
    const int length = EVP_EncodeBlock(encoded, digest, SHA_DIGEST_LENGTH);
    return std::string(reinterpret_cast<const char*>(encoded), static_cast<size_t>(length));
}

std::string encode(uint8_t opcode, std::string_view payload, bool fin,
                   std::optional<std::array<uint8_t, 4>> mask) {
    std::string out;
    out.reserve(payload.size() + 14);
    out += static_cast<char>((opcode & 0x0F) | (fin ? 0x80 : 0));
    const uint8_t maskBit = mask ? 0x80 : 0;
    const uint64_t length = payload.size();
    if (length < 126) {
        out += static_cast<char>(maskBit | length);
    } else if (length < 65'536) {
        out += static_cast<char>(maskBit | 126);
        out += static_cast<char>(length >> 8);
        out += static_cast<char>(length & 0xFF);
    } else {
        out += static_cast<char>(maskBit | 127);
        for (int shift = 56; shift >= 0; shift -= 8) out += static_cast<char>(length >> shift);
    }
    if (!mask) {
        out += payload;
        return out;
    }
    for (uint8_t b : *mask) out += static_cast<char>(b);
    for (size_t i = 0; i < payload.size(); ++i) {
        out += static_cast<char>(static_cast<uint8_t>(payload[i]) ^ (*mask)[i % 4]);
    }
    return out;
}

bool isValidCloseCode(uint16_t code) {
    if (code >= 3000 && code <= 4999) return true;
    return code >= 1000 && code <= 1014 && code != 1004 && code != 1005 && code != 1006;
}

std::optional<std::vector<Frame>> Parser::fail(uint16_t code) {
    closeCode_ = code;
    buffer_.clear();
    return std::nullopt;
}

std::optional<std::vector<Frame>> Parser::append(std::string_view data) {
    if (closeCode_) return std::nullopt;
    buffer_.append(data);
    std::vector<Frame> frames;
    size_t at = 0;
    const auto byte = [&](size_t k) { return static_cast<uint8_t>(buffer_[k]); };
    while (buffer_.size() - at >= 2) {
        const uint8_t b0 = byte(at);
        const uint8_t b1 = byte(at + 1);
        const bool fin = (b0 & 0x80) != 0;
        const uint8_t opcode = b0 & 0x0F;
        const bool control = (opcode & 0x08) != 0;
        const bool known = opcode <= 2 || (opcode >= 8 && opcode <= 10);
        const bool masked = (b1 & 0x80) != 0;
        if ((b0 & 0x70) != 0 || !known || masked != (from_ == From::client) || (control && !fin)) {
            return fail(kCloseProtocolError);
        }
        size_t header = 2;
        uint64_t length = b1 & 0x7F;
        if (control && length > kMaxControlPayload) return fail(kCloseProtocolError);
        if (length == 126 || length == 127) {
            const size_t extra = length == 126 ? 2 : 8;
            if (buffer_.size() - at < header + extra) break;
            length = 0;
            for (size_t k = 0; k < extra; ++k) length = (length << 8) | byte(at + header + k);
            header += extra;
        }
        if (length > maxPayload_) return fail(kCloseTooBig);
        const size_t maskAt = at + header;
        if (masked) header += 4;
        if (buffer_.size() - at < header + length) break;

        Frame frame;
        frame.fin = fin;
        frame.opcode = opcode;
        frame.payload = buffer_.substr(at + header, static_cast<size_t>(length));
        if (masked) {
            for (size_t i = 0; i < frame.payload.size(); ++i) {
                frame.payload[i] = static_cast<char>(static_cast<uint8_t>(frame.payload[i]) ^
                                                     byte(maskAt + i % 4));
            }
        }
        if (opcode == static_cast<uint8_t>(Opcode::close) && !frame.payload.empty()) {
            // A close payload is empty or starts with a two-byte code.
            if (frame.payload.size() < 2) return fail(kCloseProtocolError);
            const uint16_t code =
                static_cast<uint16_t>((static_cast<uint8_t>(frame.payload[0]) << 8) |
                                      static_cast<uint8_t>(frame.payload[1]));
            if (!isValidCloseCode(code)) return fail(kCloseProtocolError);
        }
        frames.push_back(std::move(frame));
        at += header + static_cast<size_t>(length);
    }
    buffer_.erase(0, at);
    return frames;
}

}  // namespace vt::net::WebSocketFrame
