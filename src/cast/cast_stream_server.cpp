#include "cast/cast_stream_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "cast/cast_channel.h"
#include "cast/wav_stream.h"
#include "dispatch/clock.h"
#include "net/http_request.h"
#include "net/http_response.h"
#include "net/listen_port.h"
#include "net/sendspin_websocket_server.h"

namespace vt::cast {
namespace {

constexpr int kListenBacklog = 8;
constexpr size_t kMaxRequestThreads = 16;
// Artwork is a thumbnail we staged ourselves; anything larger is not served.
constexpr std::streamsize kMaxArtworkBytes = 8 << 20;
constexpr double kStatIntervalSeconds = 1.0;
constexpr size_t kDebugRequestChars = 400;
// Room for one more block on top of two full backlogs, so that `write`
// never grows the buffer on the pump thread.
constexpr size_t kBacklogSlackBytes = 65536;

constexpr std::string_view kStreamHead =
    "HTTP/1.1 200 OK\r\nContent-Type: audio/wav\r\nCache-Control: no-cache\r\nConnection: "
    "close\r\n\r\n";
constexpr std::string_view kNotFound =
    "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";

}  // namespace

CastStreamServer::CastStreamServer(Clock clock)
    : clock_(clock ? std::move(clock) : Clock(dispatch::monotonicSeconds)),
      requests_(kMaxRequestThreads) {}

CastStreamServer::~CastStreamServer() {
    stop();
    requests_.waitIdle();
}

void CastStreamServer::start() {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0) throw net::ServerError(std::string("socket: ") + std::strerror(errno));
    const int yes = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(net::listenPortFromEnv("VELLATONE_CAST_LISTEN_PORT"));
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, kListenBacklog) != 0) {
        const std::string error = std::strerror(errno);
        ::close(listener);
        throw net::ServerError("bind/listen: " + error);
    }
    socklen_t length = sizeof address;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    {
        std::lock_guard guard(lock_);
        port_ = ntohs(address.sin_port);
        running_ = true;
    }
    acceptThread_ = std::thread([this, listener] {
        pthread_setname_np(pthread_self(), "CastStreamAcc");
        const auto running = [this] {
            std::lock_guard guard(lock_);
            return running_;
        };
        net::acceptUntil(listener, running, [this](int fd) {
            if (!requests_.spawn("CastStreamReq", [this, fd] { serve(fd); })) ::close(fd);
        });
    });
}

void CastStreamServer::stop() {
    {
        std::lock_guard guard(lock_);
        running_ = false;
        dropClientLocked();
    }
    if (acceptThread_.joinable()) acceptThread_.join();
}

uint16_t CastStreamServer::port() const {
    std::lock_guard guard(lock_);
    return port_;
}

uint16_t CastStreamServer::advertisedPort() const {
    return net::advertisedPortFromEnv("VELLATONE_CAST_ADVERTISE_PORT", port());
}

std::optional<double> CastStreamServer::clientStart() const {
    std::lock_guard guard(lock_);
    return clientStart_;
}

int CastStreamServer::clientsServed() const {
    std::lock_guard guard(lock_);
    return clientsServed_;
}

void CastStreamServer::setArtwork(std::optional<std::string> path) {
    std::lock_guard guard(lock_);
    artwork_ = std::move(path);
}

void CastStreamServer::setOnStreamClient(std::function<void()> callback) {
    std::lock_guard guard(lock_);
    onStreamClient_ = std::move(callback);
}

CastStreamServer::Stats CastStreamServer::stats() const {
    std::lock_guard guard(lock_);
    Stats s = stats_;
    s.backlog = backlog_.size() - backlogAt_;
    return s;
}

void CastStreamServer::dropClientLocked() {
    if (clientFD_ >= 0) ::close(clientFD_);
    clientFD_ = -1;
    clientStart_.reset();
    backlog_.clear();
    backlogAt_ = 0;
}

void CastStreamServer::serve(int fd) {
    const timeval timeout{static_cast<time_t>(kCastRequestTimeoutSeconds), 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    const net::HeadReadResult head = net::readHTTPRequest(fd, kCastRequestTimeoutSeconds);
    if (head.outcome != net::HeadReadResult::Outcome::request || !head.request) {
        ::close(fd);
        return;
    }
    const net::HTTPRequest& request = *head.request;
    if (castDebugEnabled()) {
        std::fprintf(stderr, "[cast-http] %.*s %.*s\n",
                     static_cast<int>(std::min(request.method.size(), kDebugRequestChars)),
                     request.method.c_str(),
                     static_cast<int>(std::min(request.path.size(), kDebugRequestChars)),
                     request.path.c_str());
    }
    if (request.path == "/stream.wav") {
        serveStream(fd, request.method == "HEAD");
    } else if (request.path == "/art") {
        serveArt(fd);
    } else {
        net::HTTPResponse::writeAll(fd, kNotFound);
        ::close(fd);
    }
}

void CastStreamServer::serveStream(int fd, bool headOnly) {
    const auto header = endlessWavHeader();
    const bool sent =
        net::HTTPResponse::writeAll(fd, kStreamHead) &&
        (headOnly ||
         net::HTTPResponse::writeAll(
             fd, std::string_view(reinterpret_cast<const char*>(header.data()), header.size())));
    if (headOnly || !sent) {
        ::close(fd);
        return;
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    std::function<void()> callback;
    {
        std::lock_guard guard(lock_);
        if (!running_) {
            ::close(fd);
            return;
        }
        dropClientLocked();
        clientFD_ = fd;
        backlog_.reserve(kCastBacklogLimitBytes * 2 + kBacklogSlackBytes);
        ++clientsServed_;
        callback = onStreamClient_;
    }
    if (callback) callback();
}

void CastStreamServer::serveArt(int fd) {
    std::optional<std::string> path;
    {
        std::lock_guard guard(lock_);
        path = artwork_;
    }
    std::string bytes;
    bool readable = false;
    if (path) {
        std::ifstream file(*path, std::ios::binary);
        if (file) {
            bytes.assign(std::istreambuf_iterator<char>(file), {});
            readable =
                !file.bad() && static_cast<std::streamsize>(bytes.size()) <= kMaxArtworkBytes;
        }
    }
    if (!readable) {
        net::HTTPResponse::writeAll(fd, kNotFound);
        ::close(fd);
        return;
    }
    const std::string_view type =
        std::string_view(*path).ends_with(".png") ? "image/png" : "image/jpeg";
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: " + std::string(type) +
                             "\r\nContent-Length: " + std::to_string(bytes.size()) +
                             "\r\nConnection: close\r\n\r\n";
    if (net::HTTPResponse::writeAll(fd, head)) net::HTTPResponse::writeAll(fd, bytes);
    ::close(fd);
}

void CastStreamServer::write(const uint8_t* bytes, size_t count, double blockSeconds) {
    std::lock_guard guard(lock_);
    if (clientFD_ < 0) return;
    const double now = clock_();
    // The stream's frame 0 is the first block's own time, not the moment the
    // pump got round to handing it over: a late wake-up would otherwise make
    // every lag measured against it that much too short.
    if (!clientStart_) clientStart_ = blockSeconds;
    backlog_.append(reinterpret_cast<const char*>(bytes), count);
    const size_t held = backlog_.size() - backlogAt_;
    if (held > kCastBacklogLimitBytes) {
        // Whole frames only, so left and right never swap.
        const size_t excess = held - kCastBacklogLimitBytes;
        const size_t drop =
            (excess + kCastBytesPerFrame - 1) / kCastBytesPerFrame * kCastBytesPerFrame;
        backlogAt_ += drop;
        stats_.dropped += static_cast<int64_t>(drop);
        // What follows reaches the TV earlier than its time line says: move
        // the start by as much, so the lag measured stays the truth.
        *clientStart_ += static_cast<double>(drop) / kCastBytesPerSecond;
    }
    const size_t pending = backlog_.size() - backlogAt_;
    const ssize_t n =
        ::send(clientFD_, backlog_.data() + backlogAt_, pending, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        ++stats_.stalls;
    } else if (n <= 0) {
        dropClientLocked();
        return;
    } else {
        if (static_cast<size_t>(n) < pending) ++stats_.stalls;
        stats_.sent += n;
        backlogAt_ += static_cast<size_t>(n);
    }
    if (backlogAt_ == backlog_.size()) {
        backlog_.clear();
        backlogAt_ = 0;
    } else if (backlogAt_ >= kCastBacklogLimitBytes) {
        backlog_.erase(0, backlogAt_);
        backlogAt_ = 0;
    }
    if (castDebugEnabled() && now - statAt_ >= kStatIntervalSeconds) {
        statAt_ = now;
        std::fprintf(stderr,
                     "[cast-http] %.3f sent=%lld backlog=%zu dropped=%lld stalledWrites=%lld\n",
                     now, static_cast<long long>(stats_.sent), backlog_.size() - backlogAt_,
                     static_cast<long long>(stats_.dropped), static_cast<long long>(stats_.stalls));
    }
}

}  // namespace vt::cast
