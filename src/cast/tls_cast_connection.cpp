#include "cast/tls_cast_connection.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "dispatch/clock.h"

namespace vt::cast {
namespace {

constexpr size_t kReadChunkBytes = 16384;
// A write of a few hundred bytes that cannot go out in this long means the
// link is gone; the heartbeat will say so.
constexpr double kWriteLimitSeconds = 2.0;

std::string sslErrorText() {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0) return "TLS handshake failed";
    std::array<char, 256> text{};
    ERR_error_string_n(code, text.data(), text.size());
    return text.data();
}

}  // namespace

TlsCastConnection::TlsCastConnection(std::string host, uint16_t port, double connectTimeoutSeconds)
    : host_(std::move(host)), port_(port), connectTimeout_(connectTimeoutSeconds) {}

TlsCastConnection::~TlsCastConnection() {
    cancel();
    if (ssl_) SSL_free(ssl_);
    if (ctx_) SSL_CTX_free(ctx_);
    if (fd_ >= 0) ::close(fd_);
    for (int fd : wake_)
        if (fd >= 0) ::close(fd);
}

void TlsCastConnection::start(Events events) {
    events_ = std::move(events);
    if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
        if (events_.failed) events_.failed(std::strerror(errno));
        return;
    }
    thread_ = std::thread([this] { run(); });
}

void TlsCastConnection::cancel() {
    if (cancelled_.exchange(true)) {
        if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
        return;
    }
    if (wake_[1] >= 0) {
        const char byte = 1;
        (void)!::write(wake_[1], &byte, 1);
    }
    // From inside an event the thread ends by itself; the destructor joins it.
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

bool TlsCastConnection::waitFor(short events, double deadline) {
    while (!cancelled_) {
        const double left = deadline - dispatch::monotonicSeconds();
        if (left <= 0) return false;
        pollfd fds[2] = {{fd_, events, 0}, {wake_[0], POLLIN, 0}};
        const int timeoutMs = static_cast<int>(std::ceil(std::min(left, 1.0) * 1000.0));
        const int n = ::poll(fds, 2, timeoutMs);
        if (n < 0 && errno != EINTR) return false;
        if (n > 0 && fds[1].revents) return false;
        if (n > 0 && fds[0].revents) return true;
    }
    return false;
}

bool TlsCastConnection::connectTcp(double deadline, std::string& why) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port_);
    if (const int rc = ::getaddrinfo(host_.c_str(), service.c_str(), &hints, &found); rc != 0) {
        why = ::gai_strerror(rc);
        return false;
    }
    std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> guard(found, ::freeaddrinfo);
    fd_ = ::socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        why = std::strerror(errno);
        return false;
    }
    const int one = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (::connect(fd_, found->ai_addr, found->ai_addrlen) != 0 && errno != EINPROGRESS) {
        why = std::strerror(errno);
        return false;
    }
    if (!waitFor(POLLOUT, deadline)) {
        why = "connection timed out";
        return false;
    }
    int error = 0;
    socklen_t length = sizeof error;
    ::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length);
    if (error != 0) {
        why = std::strerror(error);
        return false;
    }
    return true;
}

bool TlsCastConnection::handshake(double deadline, std::string& why) {
    ctx_ = SSL_CTX_new(TLS_client_method());
    if (!ctx_) {
        why = sslErrorText();
        return false;
    }
    // Cast devices sign their own certificates; there is nothing to check them against.
    SSL_CTX_set_verify(ctx_, SSL_VERIFY_NONE, nullptr);
    ssl_ = SSL_new(ctx_);
    if (!ssl_ || SSL_set_fd(ssl_, fd_) != 1) {
        why = sslErrorText();
        return false;
    }
    while (true) {
        std::lock_guard lock(sslMutex_);
        const int rc = SSL_connect(ssl_);
        if (rc == 1) return true;
        const int error = SSL_get_error(ssl_, rc);
        short wanted = 0;
        if (error == SSL_ERROR_WANT_READ) wanted = POLLIN;
        if (error == SSL_ERROR_WANT_WRITE) wanted = POLLOUT;
        if (wanted == 0) {
            why = error == SSL_ERROR_SYSCALL && errno != 0 ? std::strerror(errno) : sslErrorText();
            return false;
        }
        if (!waitFor(wanted, deadline)) {
            why = "connection timed out";
            return false;
        }
    }
}

void TlsCastConnection::run() {
    const double deadline = dispatch::monotonicSeconds() + connectTimeout_;
    std::string why;
    if (!connectTcp(deadline, why) || !handshake(deadline, why)) {
        if (!cancelled_ && events_.failed) events_.failed(why);
        return;
    }
    if (cancelled_) return;
    ready_ = true;
    if (events_.ready) events_.ready();
    readLoop();
}

void TlsCastConnection::readLoop() {
    std::string chunk(kReadChunkBytes, '\0');
    while (!cancelled_) {
        pollfd fds[2] = {{fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        const int n = ::poll(fds, 2, -1);
        if (n < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[1].revents || cancelled_) return;
        // Take everything TLS has decoded before polling again: a record may
        // hold more than one read's worth.
        bool ended = false;
        while (!cancelled_) {
            int got = 0;
            int error = SSL_ERROR_NONE;
            {
                std::lock_guard lock(sslMutex_);
                got = SSL_read(ssl_, chunk.data(), static_cast<int>(chunk.size()));
                if (got <= 0) error = SSL_get_error(ssl_, got);
            }
            if (got > 0) {
                if (events_.received)
                    events_.received(std::string_view(chunk.data(), static_cast<size_t>(got)));
                continue;
            }
            if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) break;
            ERR_clear_error();
            ended = true;
            break;
        }
        if (ended) break;
    }
    if (!cancelled_ && events_.closed) events_.closed();
}

bool TlsCastConnection::write(std::string_view bytes) {
    if (!ready_ || cancelled_) return false;
    const double deadline = dispatch::monotonicSeconds() + kWriteLimitSeconds;
    std::lock_guard lock(sslMutex_);
    size_t at = 0;
    while (at < bytes.size()) {
        size_t written = 0;
        const int rc = SSL_write_ex(ssl_, bytes.data() + at, bytes.size() - at, &written);
        if (rc == 1) {
            at += written;
            continue;
        }
        const int error = SSL_get_error(ssl_, rc);
        short wanted = 0;
        if (error == SSL_ERROR_WANT_READ) wanted = POLLIN;
        if (error == SSL_ERROR_WANT_WRITE) wanted = POLLOUT;
        if (wanted == 0) {
            ERR_clear_error();
            return false;
        }
        pollfd fd{fd_, wanted, 0};
        const double left = deadline - dispatch::monotonicSeconds();
        if (left <= 0 || ::poll(&fd, 1, static_cast<int>(left * 1000.0) + 1) <= 0) return false;
    }
    return true;
}

}  // namespace vt::cast
