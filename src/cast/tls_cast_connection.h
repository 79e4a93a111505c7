// TLS to a Cast device with OpenSSL. TVs present self-signed certificates, so
// the peer is not verified; the TCP connect and the handshake together must
// finish within the connect limit. One thread per connection connects and
// reads; writes come from any thread and take turns with the reader.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "cast/cast_connection.h"

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

namespace vt::cast {

inline constexpr double kCastConnectTimeoutSeconds = 8.0;

class TlsCastConnection final : public CastConnection {
  public:
    TlsCastConnection(std::string host, uint16_t port,
                      double connectTimeoutSeconds = kCastConnectTimeoutSeconds);
    ~TlsCastConnection() override;
    TlsCastConnection(const TlsCastConnection&) = delete;
    TlsCastConnection& operator=(const TlsCastConnection&) = delete;

    void start(Events events) override;
    bool write(std::string_view bytes) override;
    void cancel() override;

  private:
    void run();
    bool connectTcp(double deadline, std::string& why);
    bool handshake(double deadline, std::string& why);
    void readLoop();
    // Waits for the socket (and the wake pipe); false on cancel or time-out.
    bool waitFor(short events, double deadline);

    const std::string host_;
    const uint16_t port_;
    const double connectTimeout_;
    Events events_;
    std::thread thread_;
    std::mutex sslMutex_;
    SSL_CTX* ctx_ = nullptr;
    SSL* ssl_ = nullptr;
    int fd_ = -1;
    int wake_[2] = {-1, -1};
    std::atomic<bool> cancelled_{false};
    std::atomic<bool> ready_{false};
};

}  // namespace vt::cast
