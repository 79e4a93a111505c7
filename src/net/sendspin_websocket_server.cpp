#include "net/sendspin_websocket_server.h"

#include "net/client_threads.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "net/http_request.h"
#include "net/http_response.h"
#include "net/listen_port.h"

namespace vt::net {

namespace {

constexpr const char* kListenPortVariable = "VELLATONE_SENDSPIN_LISTEN_PORT";
constexpr const char* kAdvertisePortVariable = "VELLATONE_SENDSPIN_ADVERTISE_PORT";

bool debugLogging() {
    const char* value = std::getenv("VELLATONE_CAST_DEBUG");
    return value != nullptr && *value != '\0' && std::strcmp(value, "0") != 0;
}

std::string errnoText() {
    return std::to_string(errno);
}

}  // namespace

SendspinWebSocketServer::SendspinWebSocketServer() : SendspinWebSocketServer(Options{}) {}

SendspinWebSocketServer::SendspinWebSocketServer(Options options) : options_(std::move(options)) {}

SendspinWebSocketServer::~SendspinWebSocketServer() {
    stop();
    if (acceptThread_.joinable()) acceptThread_.join();
    clients_.waitIdle();
}

void SendspinWebSocketServer::start() {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0) throw ServerError("socket: " + errnoText());
    const int yes = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);

    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(options_.port.value_or(listenPortFromEnv(kListenPortVariable)));
    if (inet_pton(AF_INET, options_.bindAddress.c_str(), &address.sin_addr) != 1 ||
        bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 4) != 0) {
        const std::string error = errnoText();
        ::close(listener);
        throw ServerError("bind/listen: " + error);
    }
    socklen_t length = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    {
        std::lock_guard guard(lock_);
        port_ = ntohs(address.sin_port);
        running_ = true;
    }
    acceptThread_ = std::thread([this, listener] {
        pthread_setname_np(pthread_self(), "SendspinAccept");
        acceptLoop(listener);
    });
}

void SendspinWebSocketServer::acceptLoop(int listener) {
    const auto running = [this] {
        std::lock_guard guard(lock_);
        return running_;
    };
    acceptUntil(listener, running, [this](int fd) {
        {
            std::lock_guard guard(lock_);
            if (!running_) {
                ::close(fd);
                return;
            }
            pendingHeads_.insert(fd);
        }
        clients_.spawn("SendspinClient", [this, fd] { serveClient(fd); });
    });
}

void SendspinWebSocketServer::serveClient(int fd) {
    const HeadReadResult head = readHTTPRequest(fd, options_.headDeadlineSeconds);
    {
        std::lock_guard guard(lock_);
        pendingHeads_.erase(fd);
    }
    if (!head.request) {
        ::close(fd);
        return;
    }
    const HTTPRequest& request = *head.request;
    const bool upgrade = request.isWebSocketUpgrade();
    if (debugLogging()) {
        std::fprintf(stderr, "[sendspin] http %s %s upgrade=%s\n", request.method.c_str(),
                     request.path.c_str(), upgrade ? "true" : "false");
    }
    if (request.path != "/sendspin" || !upgrade) {
        HTTPResponse::writeAll(fd, HTTPResponse::status(404, "Not Found", {}, {}));
        ::close(fd);
        return;
    }
    if (auto refusal = HTTPResponse::webSocketRefusal(request)) {
        HTTPResponse::writeAll(fd, *refusal);
        ::close(fd);
        return;
    }
    if (!HTTPResponse::writeAll(fd,
                                HTTPResponse::upgrade(request.headers.at("sec-websocket-key")))) {
        ::close(fd);
        return;
    }

    std::shared_ptr<SendspinConnection> connection;
    std::shared_ptr<SendspinConnection> replaced;
    {
        std::lock_guard guard(lock_);
        if (!running_) {
            ::close(fd);
            return;
        }
        connection =
            std::make_shared<SendspinConnection>(fd, ++generation_, SendspinConnection::Limits{});
        replaced = std::exchange(current_, connection);
    }
    const int64_t id = connection->id();
    connection->setOnText([this, id](std::string_view text, int64_t receivedUs) {
        if (onText) onText(id, text, receivedUs);
    });
    if (onConnect) onConnect(id);
    // The old client is cut off only now, so its disconnect always follows the
    // new client's connect and the owner never sees a moment with no client.
    if (replaced) replaced->close(std::nullopt);

    connection->run(head.leftover);

    {
        std::lock_guard guard(lock_);
        pastDropped_ += connection->droppedFrames();
        if (current_ == connection) current_.reset();
    }
    if (onDisconnect) onDisconnect(id);
}

void SendspinWebSocketServer::stop() {
    std::shared_ptr<SendspinConnection> old;
    {
        std::lock_guard guard(lock_);
        running_ = false;
        old = std::move(current_);
        current_.reset();
        for (int fd : pendingHeads_) shutdown(fd, SHUT_RDWR);
    }
    if (old) old->close(1000);
}

uint16_t SendspinWebSocketServer::port() const {
    std::lock_guard guard(lock_);
    return port_;
}

uint16_t SendspinWebSocketServer::advertisedPort() const {
    return advertisedPortFromEnv(kAdvertisePortVariable, port());
}

int64_t SendspinWebSocketServer::droppedFrames() const {
    std::shared_ptr<SendspinConnection> live;
    int64_t total = 0;
    {
        std::lock_guard guard(lock_);
        total = pastDropped_;
        live = current_;
    }
    return total + (live ? live->droppedFrames() : 0);
}

std::shared_ptr<SendspinConnection> SendspinWebSocketServer::connection(int64_t id) const {
    std::lock_guard guard(lock_);
    if (current_ && current_->id() == id) return current_;
    return nullptr;
}

void SendspinWebSocketServer::sendText(std::string text, int64_t to) {
    if (auto c = connection(to)) c->sendText(text);
}

void SendspinWebSocketServer::sendTextBuilding(std::function<std::string()> building, int64_t to) {
    if (auto c = connection(to)) c->sendText(std::move(building));
}

void SendspinWebSocketServer::sendBinary(std::string data, int64_t to) {
    if (auto c = connection(to)) c->sendBinary(data);
}

}  // namespace vt::net
