// The Sendspin server a clock-synced TV joins, as its sender sees it: one
// client at a time, events on the server's threads. The program's is the
// WebSocket server; tests script one.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "net/sendspin_transport.h"
#include "net/sendspin_websocket_server.h"

namespace vt::cast {

class SendspinEndpoint : public net::SendspinTransport {
  public:
    struct Events {
        std::function<void(int64_t id)> connected;
        std::function<void(int64_t id, std::string_view text, int64_t receivedUs)> text;
        std::function<void(int64_t id)> gone;
    };

    virtual void setEvents(Events events) = 0;  // before start
    virtual void start() = 0;                   // throws net::ServerError
    virtual void stop() = 0;
    virtual uint16_t advertisedPort() const = 0;
    // The path the receiver opens on that port.
    virtual std::string_view path() const { return "/sendspin"; }
};

class SendspinServerEndpoint final : public SendspinEndpoint {
  public:
    explicit SendspinServerEndpoint(net::SendspinWebSocketServer::Options options = {})
        : server_(std::move(options)) {}

    void setEvents(Events events) override {
        server_.onConnect = std::move(events.connected);
        server_.onText = std::move(events.text);
        server_.onDisconnect = std::move(events.gone);
    }
    void start() override { server_.start(); }
    void stop() override { server_.stop(); }
    uint16_t advertisedPort() const override { return server_.advertisedPort(); }
    void sendText(std::string text, int64_t to) override { server_.sendText(std::move(text), to); }
    void sendTextBuilding(std::function<std::string()> building, int64_t to) override {
        server_.sendTextBuilding(std::move(building), to);
    }
    void sendBinary(std::string data, int64_t to) override {
        server_.sendBinary(std::move(data), to);
    }

  private:
    net::SendspinWebSocketServer server_;
};

}  // namespace vt::cast
