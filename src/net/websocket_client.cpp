#include "net/websocket_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "net/http_response.h"

namespace vt::net {

WebSocketClient::~WebSocketClient() {
    close();
}

void WebSocketClient::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

bool WebSocketClient::connect(const std::string& host, uint16_t port, const std::string& path) {
    close();
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return false;
    const int yes = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    if (receiveBuffer_ > 0) {
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer_, sizeof receiveBuffer_);
    }
    if (!sourceAddress_.empty()) {
        sockaddr_in from{};
        from.sin_family = AF_INET;
        if (inet_pton(AF_INET, sourceAddress_.c_str(), &from.sin_addr) != 1 ||
            bind(fd_, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0) {
            close();
            return false;
        }
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1 ||
        ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close();
        return false;
    }
    const std::string key = "dGhlIHNhbXBsZSBub25jZQ==";
    const std::string request = "GET " + path + " HTTP/1.1\r\nHost: " + host +
                                "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                                "Sec-WebSocket-Key: " +
                                key + "\r\nSec-WebSocket-Version: 13\r\n\r\n";
    if (!sendRaw(request)) return false;

    std::string response;
    char chunk[1024];
    while (response.find("\r\n\r\n") == std::string::npos) {
        const ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
        if (n <= 0) return false;
        response.append(chunk, static_cast<size_t>(n));
    }
    const size_t end = response.find("\r\n\r\n") + 4;
    if (response.rfind("HTTP/1.1 101", 0) != 0 ||
        response.find("Sec-WebSocket-Accept: " + WebSocketFrame::acceptKey(key)) ==
            std::string::npos) {
        return false;
    }
    auto frames = parser_.append(std::string_view(response).substr(end));
    if (frames) ready_ = std::move(*frames);
    return true;
}

bool WebSocketClient::sendRaw(std::string_view bytes) {
    return fd_ >= 0 && HTTPResponse::writeAll(fd_, bytes);
}

bool WebSocketClient::sendFrame(WebSocketFrame::Opcode opcode, std::string_view payload, bool fin) {
    return sendRaw(WebSocketFrame::encode(opcode, payload, fin,
                                          std::array<uint8_t, 4>{0x12, 0x34, 0x56, 0x78}));
}

bool WebSocketClient::sendText(std::string_view text) {
    return sendFrame(WebSocketFrame::Opcode::text, text);
}

std::optional<WebSocketFrame::Frame> WebSocketClient::receive(int timeoutMs) {
    char chunk[65536];
    while (nextReady_ >= ready_.size()) {
        ready_.clear();
        nextReady_ = 0;
        pollfd pfd{fd_, POLLIN, 0};
        const int ready = poll(&pfd, 1, timeoutMs);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        const ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
        if (n <= 0) return std::nullopt;
        auto frames = parser_.append(std::string_view(chunk, static_cast<size_t>(n)));
        if (!frames) return std::nullopt;
        ready_ = std::move(*frames);
    }
    return std::move(ready_[nextReady_++]);
}

}  // namespace vt::net
