// Lets a sender silence its stream's audio without stopping the pump: frames
// reach the server only for the connection the gate is open to. The pump keeps
// draining the slot at real-time speed while a phone is away, so the slot's
// timeline never falls behind and a returning phone picks up at once.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "net/sendspin_transport.h"

namespace vt::guests {

class GatedTransport final : public net::SendspinTransport {
  public:
    explicit GatedTransport(net::SendspinTransport& inner) : inner_(inner) {}

    void open(int64_t to) { target_.store(to); }
    void close() { target_.store(kNone); }
    std::optional<int64_t> target() const {
        const int64_t t = target_.load();
        return t == kNone ? std::nullopt : std::optional<int64_t>(t);
    }

    void sendText(std::string text, int64_t to) override { inner_.sendText(std::move(text), to); }
    void sendTextBuilding(std::function<std::string()> building, int64_t to) override {
        inner_.sendTextBuilding(std::move(building), to);
    }
    void sendBinary(std::string data, int64_t to) override {
        if (target_.load() == to) inner_.sendBinary(std::move(data), to);
    }

  private:
    static constexpr int64_t kNone = INT64_MIN;
    net::SendspinTransport& inner_;
    std::atomic<int64_t> target_{kNone};
};

}  // namespace vt::guests
