// What the model holds for a Cast row, whichever way the TV is fed.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "sendspin/stream.h"

namespace vt::cast {

struct CastStatus {
    // In this order: the model compares them.
    enum class Kind { failed, connecting, buffering, streaming, unreachable, replaced, stopped };
    Kind kind = Kind::stopped;
    std::string reason;  // the words of `failed`
    // With `unreachable`: the port the TV was to fetch from, for the firewall's advice.
    std::optional<uint16_t> streamPort;

    bool operator==(const CastStatus&) const = default;
    static CastStatus failed(std::string why) { return {Kind::failed, std::move(why)}; }
};

const char* rawValue(CastStatus::Kind kind);

// Where the TV is: discovery's host (absent until resolved) and port.
struct CastTarget {
    std::string id;
    std::optional<std::string> host;
    int port = 8009;
};

class CastOutputSender {
  public:
    virtual ~CastOutputSender() = default;
    virtual void start() = 0;
    virtual void stop() = 0;
    virtual void send(std::optional<sendspin::TrackInfo> meta) = 0;

    // Both arrive on the main queue.
    std::function<void(const CastStatus&)> onStatus;
    std::function<void(double latencyMs)> onLatency;
};

}  // namespace vt::cast
