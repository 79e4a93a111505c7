#include "net/http_response.h"

#include <sys/socket.h>

#include <cerrno>

#include "net/websocket_frame.h"

namespace vt::net::HTTPResponse {

namespace {
// The only version RFC 6455 defines.
constexpr const char* kWebSocketVersion = "13";
}  // namespace

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

std::optional<std::string> webSocketRefusal(const HTTPRequest& request) {
    const auto version = request.headers.find("sec-websocket-version");
    if (version == request.headers.end()) return status(400, "Bad Request", {}, {});
    if (version->second == kWebSocketVersion) return std::nullopt;
    std::string out = "HTTP/1.1 426 Upgrade Required\r\nSec-WebSocket-Version: ";
    out += kWebSocketVersion;
    out += "\r\nContent-Length: 0\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n";
    return out;
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
