// A plain blocking WebSocket client: the measuring tool and the tests talk to
// our servers through it. Frames it sends are masked, as a browser's are.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "net/websocket_frame.h"

namespace vt::net {

class WebSocketClient {
  public:
    WebSocketClient() = default;
    ~WebSocketClient();
    WebSocketClient(const WebSocketClient&) = delete;
    WebSocketClient& operator=(const WebSocketClient&) = delete;

    // Connects to host:port and performs the upgrade on `path`; false on any failure.
    bool connect(const std::string& host, uint16_t port, const std::string& path);
    bool sendText(std::string_view text);
    bool sendFrame(WebSocketFrame::Opcode opcode, std::string_view payload, bool fin = true);
    bool sendRaw(std::string_view bytes);
    // The next frame, waiting at most `timeoutMs` (negative: forever).
    std::optional<WebSocketFrame::Frame> receive(int timeoutMs = -1);
    // Applies to the next connect; a small buffer makes a backlog build on the sender.
    void setReceiveBuffer(int bytes) { receiveBuffer_ = bytes; }
    // Applies to the next connect: one of loopback's addresses, so that a
    // measurement can play several machines.
    void setSourceAddress(std::string address) { sourceAddress_ = std::move(address); }
    void close();
    int fd() const { return fd_; }

  private:
    int fd_ = -1;
    int receiveBuffer_ = 0;
    std::string sourceAddress_;
    WebSocketFrame::Parser parser_{1 << 24, WebSocketFrame::From::server};
    std::vector<WebSocketFrame::Frame> ready_;
    size_t nextReady_ = 0;
};

}  // namespace vt::net
