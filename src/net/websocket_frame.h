// WebSocket framing (RFC 6455) with a hard bound on what one frame may claim.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vt::net::WebSocketFrame {

enum class Opcode : uint8_t {
    continuation = 0,
    text = 1,
    binary = 2,
    close = 8,
    ping = 9,
    pong = 10,
};

struct Frame {
    bool fin = true;
    uint8_t opcode = 0;  // the four bits as sent, known or not
    std::string payload;
};

std::string acceptKey(std::string_view key);

std::string encode(uint8_t opcode, std::string_view payload, bool fin = true,
                   std::optional<std::array<uint8_t, 4>> mask = std::nullopt);
inline std::string encode(Opcode opcode, std::string_view payload, bool fin = true,
                          std::optional<std::array<uint8_t, 4>> mask = std::nullopt) {
    return encode(static_cast<uint8_t>(opcode), payload, fin, mask);
}

// Close codes of RFC 6455, section 7.4.1, that this side sends.
inline constexpr uint16_t kCloseProtocolError = 1002;
inline constexpr uint16_t kCloseTooBig = 1009;
// The largest payload of a control frame (ping, pong, close).
inline constexpr size_t kMaxControlPayload = 125;

// Whose frames a parser reads: a client's are always masked, a server's never.
enum class From { client, server };

class Parser {
  public:
    Parser(uint64_t maxPayload, From from) : maxPayload_(maxPayload), from_(from) {}

    // The frames completed by these bytes (maybe none), or nothing once the
    // stream has broken RFC 6455 or claims more than the limit: `closeCode`
    // then says which, and nothing after that can be trusted. No extension is
    // ever agreed, so reserved bits and opcodes are always a breach.
    std::optional<std::vector<Frame>> append(std::string_view data);

    // Why the stream failed: kCloseProtocolError or kCloseTooBig.
    std::optional<uint16_t> closeCode() const { return closeCode_; }
    uint64_t maxPayload() const { return maxPayload_; }
    size_t buffered() const { return buffer_.size(); }

  private:
    std::optional<std::vector<Frame>> fail(uint16_t code);

    std::string buffer_;
    uint64_t maxPayload_;
    From from_;
    std::optional<uint16_t> closeCode_;
};

// A close code a peer may send (RFC 6455, section 7.4): the registered ones
// that are not kept for local use, and 3000 to 4999.
bool isValidCloseCode(uint16_t code);

}  // namespace vt::net::WebSocketFrame
