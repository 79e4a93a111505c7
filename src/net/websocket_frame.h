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

class Parser {
  public:
    explicit Parser(uint64_t maxPayload) : maxPayload_(maxPayload) {}

    // The frames completed by these bytes (maybe none), or nothing once a frame
    // claims more than the limit: the stream cannot be trusted after that.
    std::optional<std::vector<Frame>> append(std::string_view data);

    uint64_t maxPayload() const { return maxPayload_; }
    size_t buffered() const { return buffer_.size(); }

  private:
    std::string buffer_;
    uint64_t maxPayload_;
};

}  // namespace vt::net::WebSocketFrame
