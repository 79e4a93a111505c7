#include "load_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <variant>

#include "net/client_threads.h"
#include "net/http_request.h"
#include "net/http_response.h"
#include "sendspin/protocol.h"

namespace vt::tools {

namespace P = sendspin::SendspinProtocol;

LoadServer::LoadServer() = default;

LoadServer::~LoadServer() {
    stop();
}

uint16_t LoadServer::start() {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener_, 16) != 0) {
        return 0;
    }
    socklen_t length = sizeof address;
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    running_ = true;
    acceptThread_ = std::thread([this] {
        int64_t nextId = 0;
        net::acceptUntil(
            listener_, [this] { return running_.load(); },
            [this, &nextId](int fd) {
                clients_.emplace_back([this, fd, id = ++nextId] {
                    pthread_setname_np(pthread_self(), "GuestClient");
                    serve(fd, id);
                });
            });
    });
    return ntohs(address.sin_port);
}

void LoadServer::stop() {
    if (!running_.exchange(false)) return;
    acceptThread_.join();
    {
        std::lock_guard guard(lock_);
        for (auto& [id, connection] : connections_) connection->close(1000);
    }
    for (auto& thread : clients_) thread.join();
}

void LoadServer::serve(int fd, int64_t id) {
    const auto head = net::readHTTPRequest(fd, 5.0);
    if (!head.request || !head.request->isWebSocketUpgrade() ||
        !net::HTTPResponse::writeAll(
            fd, net::HTTPResponse::upgrade(head.request->headers.at("sec-websocket-key")))) {
        ::close(fd);
        return;
    }
    auto connection = std::make_shared<net::SendspinConnection>(
        fd, id, net::SendspinConnection::Limits{.maxMessage = 65'536, .maxControlQueue = 256});
    {
        std::lock_guard guard(lock_);
        connections_[id] = connection;
    }
    // A 440 Hz tone from a rotating phasor: the render stands in for the engine
    // and should cost next to nothing, so the figure is the send path's.
    const double cosStep = std::cos(2 * M_PI * 440.0 / 48'000.0);
    const double sinStep = std::sin(2 * M_PI * 440.0 / 48'000.0);
    double re = 1, im = 0;
    sendspin::SendspinStream stream(*this, 500.0, "GuestPump",
                                    [&, cosStep, sinStep](float* into, size_t n) {
                                        for (size_t i = 0; i < n; ++i) {
                                            into[2 * i] = 0.25f * static_cast<float>(im);
                                            into[2 * i + 1] = -0.25f * static_cast<float>(im);
                                            const double r = re * cosStep - im * sinStep;
                                            im = re * sinStep + im * cosStep;
                                            re = r;
                                        }
                                        const double norm = std::sqrt(re * re + im * im);
                                        re /= norm;
                                        im /= norm;
                                    });
    bool helloSeen = false;
    connection->setOnText([&](std::string_view text, int64_t receivedUs) {
        if (sendspin::SendspinStream::answerClock(text, id, receivedUs, *this)) return;
        const auto message = P::parse(text);
        if (!message || helloSeen) return;
        if (const auto* hello = std::get_if<P::ClientHello>(&*message)) {
            helloSeen = true;
            if (auto refusal = P::formatRefusal(*hello)) {
                std::fprintf(stderr, "%s\n", refusal->c_str());
                sendText(P::serverHello("load", "Vellatone", hello->supportedRoles), id);
                return;
            }
            sendText(P::serverHello("load", "Vellatone", hello->supportedRoles), id);
            stream.sendMetadata(id);
            stream.begin(id);
            ++streaming_;
        }
    });
    connection->run(head.leftover);
    stream.stopPump();
    std::lock_guard guard(lock_);
    pastDropped_ += connection->droppedFrames();
    connections_.erase(id);
}

std::shared_ptr<net::SendspinConnection> LoadServer::find(int64_t id) const {
    std::lock_guard guard(lock_);
    const auto it = connections_.find(id);
    return it == connections_.end() ? nullptr : it->second;
}

int64_t LoadServer::droppedFrames() const {
    std::lock_guard guard(lock_);
    int64_t total = pastDropped_;
    for (const auto& [id, connection] : connections_) total += connection->droppedFrames();
    return total;
}

size_t LoadServer::queuedAudioBytes() const {
    std::lock_guard guard(lock_);
    size_t total = 0;
    for (const auto& [id, connection] : connections_) total += connection->queuedAudioBytes();
    return total;
}

void LoadServer::sendText(std::string text, int64_t to) {
    if (auto c = find(to)) c->sendText(text);
}

void LoadServer::sendTextBuilding(std::function<std::string()> building, int64_t to) {
    if (auto c = find(to)) c->sendText(std::move(building));
}

void LoadServer::sendBinary(std::string data, int64_t to) {
    if (auto c = find(to)) c->sendBinary(data);
}

}  // namespace vt::tools
