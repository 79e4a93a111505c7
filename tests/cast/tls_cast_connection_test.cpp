// The OpenSSL connection against a real TLS server on loopback with a
// self-signed certificate, as a TV presents one.
#include "cast/tls_cast_connection.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <thread>

#include "cast/cast_message.h"

namespace vt::cast {
namespace {

using namespace std::chrono_literals;

int listenOnLoopback(uint16_t& port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(fd, 4), 0);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    return fd;
}

// A TLS server context with a fresh self-signed certificate.
SSL_CTX* selfSignedServer() {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = X509_new();
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("fake-tv"), -1, -1, 0);
    X509_set_issuer_name(cert, name);
    X509_sign(cert, key, EVP_sha256());
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    SSL_CTX_use_certificate(ctx, cert);
    SSL_CTX_use_PrivateKey(ctx, key);
    X509_free(cert);
    EVP_PKEY_free(key);
    return ctx;
}

struct Recorder {
    std::mutex mutex;
    std::condition_variable changed;
    std::string received;
    std::string outcome;  // "ready", then "closed" or "failed: ..."

    void note(std::string what) {
        std::lock_guard lock(mutex);
        outcome += outcome.empty() ? what : " " + what;
        changed.notify_all();
    }
    bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit = 5s) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, limit, done);
    }
    CastConnection::Events events() {
        return {
            .ready = [this] { note("ready"); },
            .received =
                [this](std::string_view bytes) {
                    std::lock_guard lock(mutex);
                    received.append(bytes);
                    changed.notify_all();
                },
            .failed = [this](const std::string& why) { note("failed: " + why); },
            .closed = [this] { note("closed"); },
        };
    }
};

TEST(TlsCastConnection, TalksToASelfSignedServerAndHearsItClose) {
    uint16_t port = 0;
    const int listener = listenOnLoopback(port);
    SSL_CTX* ctx = selfSignedServer();
    const std::string message =
        CastMessage{"sender-0", "receiver-0", "ns", R"({"type":"PING"})"}.framed();
    auto server = std::async(std::launch::async, [&] {
        const int fd = ::accept(listener, nullptr, nullptr);
        SSL* ssl = SSL_new(ctx);
        SSL_set_fd(ssl, fd);
        std::string got;
        if (SSL_accept(ssl) == 1) {
            char buffer[256];
            while (got.size() < message.size()) {
                const int n = SSL_read(ssl, buffer, sizeof buffer);
                if (n <= 0) break;
                got.append(buffer, static_cast<size_t>(n));
            }
            SSL_write(ssl, got.data(), static_cast<int>(got.size()));
            SSL_shutdown(ssl);
        }
        SSL_free(ssl);
        ::close(fd);
        return got;
    });

    Recorder recorder;
    TlsCastConnection connection("127.0.0.1", port);
    EXPECT_FALSE(connection.write(message)) << "nothing goes out before the session is up";
    connection.start(recorder.events());
    ASSERT_TRUE(recorder.waitFor([&] { return !recorder.outcome.empty(); }));
    ASSERT_EQ(recorder.outcome, "ready");
    EXPECT_TRUE(connection.write(message));
    EXPECT_EQ(server.get(), message);
    ASSERT_TRUE(recorder.waitFor([&] { return recorder.outcome == "ready closed"; }));
    EXPECT_EQ(recorder.received, message);
    connection.cancel();
    SSL_CTX_free(ctx);
    ::close(listener);
}

TEST(TlsCastConnection, ARefusedConnectionFailsWithTheSystemsWords) {
    uint16_t port = 0;
    ::close(listenOnLoopback(port));
    Recorder recorder;
    TlsCastConnection connection("127.0.0.1", port);
    connection.start(recorder.events());
    ASSERT_TRUE(recorder.waitFor([&] { return !recorder.outcome.empty(); }));
    EXPECT_EQ(recorder.outcome, "failed: Connection refused");
}

TEST(TlsCastConnection, AServerThatNeverShakesHandsRunsIntoTheConnectLimit) {
    // The kernel completes the TCP connect from the backlog; TLS never answers.
    uint16_t port = 0;
    const int listener = listenOnLoopback(port);
    Recorder recorder;
    TlsCastConnection connection("127.0.0.1", port, 0.3);
    connection.start(recorder.events());
    ASSERT_TRUE(recorder.waitFor([&] { return !recorder.outcome.empty(); }));
    EXPECT_EQ(recorder.outcome, "failed: connection timed out");

    // Cancelling while it waits ends the attempt with no event at all.
    Recorder second;
    auto waiting = std::make_unique<TlsCastConnection>("127.0.0.1", port);
    waiting->start(second.events());
    std::this_thread::sleep_for(50ms);
    waiting->cancel();
    waiting.reset();
    EXPECT_EQ(second.outcome, "");
    ::close(listener);
}

}  // namespace
}  // namespace vt::cast
