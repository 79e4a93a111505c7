#include "net/http_response.h"

#include <sys/socket.h>

#include <cerrno>

#include "net/websocket_frame.h"

namespace vt::net::HTTPResponse {

std::string status(int code, std::string_view reason, std::optional<std::string_view> type,
                   std::string_view body) {
    std::string out = "HTTP/1.1 " + std::to_string(code) + " " + std::string(reason) + "\r\n";
    if (type) out += "Content-Type: " + std::string(*type) + "\r\n";
    out += "Content-Length: " + std::to_string(body.size()) +
           "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n";
    out += body;
    return out;
}

std::string upgrade(std::string_view key) {
    return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: "
           "Upgrade\r\nSec-WebSocket-Accept: " +
           WebSocketFrame::acceptKey(key) + "\r\n\r\n";
}

bool writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t n = send(fd, data.data(), data.size(), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

}  // namespace vt::net::HTTPResponse
