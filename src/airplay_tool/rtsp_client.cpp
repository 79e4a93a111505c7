#include "airplay_tool/rtsp_client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace vt::airplay_tool {

namespace {

constexpr int kHttpUnauthorized = 401;
// RTSP's Digest user name; receivers do not check it.
constexpr const char* kDigestUser = "iTunes";
constexpr size_t kReadChunk = 4096;

int64_t steadyMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string addressText(const sockaddr_storage& ss) {
    char text[INET6_ADDRSTRLEN] = {};
    if (ss.ss_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(ss).sin_addr, text, sizeof text);
    else if (ss.ss_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(ss).sin6_addr, text,
                  sizeof text);
    return text;
}

}  // namespace

std::unique_ptr<RtspClient> RtspClient::connect(const std::string& host, int port, int timeoutMs,
                                                std::string& error) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port);
    if (int rc = getaddrinfo(host.c_str(), service.c_str(), &hints, &found); rc != 0) {
        error = "cannot resolve " + host + ": " + gai_strerror(rc);
        return nullptr;
    }
    int fd = -1;
    error = "cannot connect to " + host + ":" + service;
    for (addrinfo* ai = found; ai && fd < 0; ai = ai->ai_next) {
        fd = socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0) continue;
        int rc = ::connect(fd, ai->ai_addr, ai->ai_addrlen);
        if (rc < 0 && errno == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            rc = poll(&p, 1, timeoutMs) == 1 ? 0 : -1;
            int soError = rc == 0 ? 0 : ETIMEDOUT;
            socklen_t len = sizeof soError;
            if (rc == 0) getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &len);
            if (soError != 0) {
                error += std::string(": ") + std::strerror(soError);
                rc = -1;
            }
        } else if (rc < 0) {
            error += std::string(": ") + std::strerror(errno);
        }
        if (rc < 0) {
            close(fd);
            fd = -1;
        }
    }
    freeaddrinfo(found);
    if (fd < 0) return nullptr;
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    error.clear();
    return std::unique_ptr<RtspClient>(new RtspClient(fd));
}

RtspClient::RtspClient(int fd) : fd_(fd) {
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len) == 0) localIP_ = addressText(ss);
    len = sizeof ss;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&ss), &len) == 0) peerIP_ = addressText(ss);
}

RtspClient::~RtspClient() {
    if (fd_ >= 0) close(fd_);
}

void RtspClient::addCommonHeader(std::string name, std::string value) {
    common_.emplace_back(std::move(name), std::move(value));
}

RtspResult RtspClient::request(RtspRequest request, int timeoutMs) {
    RtspResult result = exchange(request, timeoutMs);
    if (!result.response || result.response->status != kHttpUnauthorized) return result;
    if (password_.empty() || result.triedPassword) return result;
    auto header = result.response->header("www-authenticate");
    auto challenge = header ? parseDigestChallenge(*header) : std::nullopt;
    if (!challenge) return result;
    challenge_ = challenge;
    return exchange(request, timeoutMs);
}

RtspResult RtspClient::exchange(const RtspRequest& base, int timeoutMs) {
    RtspRequest r;
    r.method = base.method;
    r.uri = base.uri;
    r.version = version_;
    if (version_ == kHttpVersion) r.add("Host", peerIP_);
    r.add("CSeq", std::to_string(++cseq_));
    for (const auto& h : common_) r.headers.push_back(h);
    for (const auto& h : base.headers) r.headers.push_back(h);
    r.body = base.body;
    RtspResult result;
    if (challenge_) {
        r.add("Authorization",
              digestAuthorization(kDigestUser, password_, *challenge_, r.method, r.uri));
        result.triedPassword = true;
    }
    lastRequest_ = std::chrono::steady_clock::now();
    if (auto error = sendAll(r.serialize())) {
        result.error = std::move(*error);
        return result;
    }
    RtspResponseReader reader(version_);
    std::string carried;
    carried.swap(pending_);
    RtspResponseReader::State state = reader.append(carried);
    const int64_t deadline = steadyMs() + timeoutMs;
    char buf[kReadChunk];
    while (state == RtspResponseReader::State::needMore) {
        const int64_t left = deadline - steadyMs();
        if (left <= 0) {
            result.error = "no answer to " + r.method + " in time";
            return result;
        }
        pollfd p{fd_, POLLIN, 0};
        int rc = poll(&p, 1, static_cast<int>(left));
        if (rc < 0 && errno == EINTR) continue;
        if (rc <= 0) continue;
        ssize_t n = recv(fd_, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            result.error = "the receiver closed the connection";
            return result;
        }
        std::string plain;
        if (!received(std::string_view(buf, static_cast<size_t>(n)), plain)) {
            result.error = "the receiver's answer to " + r.method + " did not decrypt";
            return result;
        }
        state = reader.append(plain);
    }
    if (state == RtspResponseReader::State::malformed) {
        result.error = "malformed answer to " + r.method;
        return result;
    }
    pending_ = std::string(reader.leftover());
    result.response = reader.response();
    return result;
}

void RtspClient::encrypt(const hap::ChannelKeys& keys) {
    sealer_.emplace(keys.outgoing);
    opener_.emplace(keys.incoming);
}

bool RtspClient::received(std::string_view raw, std::string& plain) {
    if (!opener_) {
        plain.assign(raw);
        return true;
    }
    return opener_->append(raw, plain) == hap::FrameOpener::State::ok;
}

std::optional<std::string> RtspClient::sendAll(std::string_view text) {
    std::string wire(text);
    if (sealer_) {
        std::string sealed;
        sealer_->seal(wire, sealed);
        wire.swap(sealed);
    }
    size_t sent = 0;
    while (sent < wire.size()) {
        ssize_t n = send(fd_, wire.data() + sent, wire.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return std::string("connection lost: ") + std::strerror(errno);
        sent += static_cast<size_t>(n);
    }
    return std::nullopt;
}

bool RtspClient::drainUnsolicited() {
    // An encrypted channel must still count the frames of what it ignores.
    std::string ignored;
    return drainUnsolicited(ignored);
}

bool RtspClient::drainUnsolicited(std::string& plain) {
    char buf[kReadChunk];
    ssize_t n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
    if (n == 0) return false;
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    return received(std::string_view(buf, static_cast<size_t>(n)), plain);
}

bool RtspClient::sendUnasked(std::string_view text) {
    return !sendAll(text);
}

}  // namespace vt::airplay_tool
