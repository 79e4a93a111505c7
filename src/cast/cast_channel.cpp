#include "cast/cast_channel.h"

#include <cstdio>
#include <cstdlib>

namespace vt::cast {
namespace {

bool isUnnumbered(std::string_view type) {
    return type == "CONNECT" || type == "CLOSE" || type == "PING" || type == "PONG";
}

// Heartbeats and the half-second status polls would drown everything else.
bool isQuiet(std::string_view type, std::string_view nameSpace) {
    return type == "PING" || type == "PONG" || type == "GET_STATUS" ||
           (type == "MEDIA_STATUS" && nameSpace == kMediaNamespace);
}

std::string_view lastWord(std::string_view nameSpace) {
    const auto dot = nameSpace.rfind('.');
    return dot == std::string_view::npos ? nameSpace : nameSpace.substr(dot + 1);
}

void debugLine(const char* direction, const CastMessage& message) {
    if (!castDebugEnabled()) return;
    if (isQuiet(message.type(), message.nameSpace)) return;
    const auto word = lastWord(message.nameSpace);
    std::fprintf(stderr, "[cast] %.*s %s %s\n", static_cast<int>(word.size()), word.data(),
                 direction, message.payload.c_str());
}

}  // namespace

bool castDebugEnabled() {
    static const bool enabled = std::getenv("VELLATONE_CAST_DEBUG") != nullptr;
    return enabled;
}

std::shared_ptr<CastChannel> CastChannel::make(std::unique_ptr<CastConnection> connection,
                                               dispatch::MainQueue& delivery) {
    return std::shared_ptr<CastChannel>(new CastChannel(std::move(connection), delivery));
}

CastChannel::CastChannel(std::unique_ptr<CastConnection> connection, dispatch::MainQueue& delivery)
    : connection_(std::move(connection)), delivery_(delivery), lastHeard_(delivery.now()) {}

CastChannel::~CastChannel() {
    shutDown();
    // Joins the connection's thread, so no event can reach a channel that is gone.
    connection_->cancel();
}

void CastChannel::start(Callbacks callbacks) {
    callbacks_ = std::move(callbacks);
    // The connection's events hold no reference: the destructor cancels the
    // connection, which waits for a running event, so `this` outlives them all.
    CastConnection::Events events;
    events.ready = [this] { connectionReady(); };
    events.received = [this](std::string_view bytes) { received(bytes); };
    events.failed = [this](const std::string& why) { lose(std::string(kLostCannotReach) + why); };
    events.closed = [this] { lose(std::string(kLostClosed)); };
    connection_->start(std::move(events));
}

void CastChannel::deliver(std::function<void(CastChannel&)> task) {
    const std::weak_ptr<CastChannel> weak = weak_from_this();
    delivery_.post([weak, task = std::move(task)] {
        if (auto self = weak.lock()) task(*self);
    });
}

void CastChannel::connectionReady() {
    deliver([](CastChannel& self) {
        if (self.closed()) return;
        const std::weak_ptr<CastChannel> weak = self.weak_from_this();
        auto timer = self.delivery_.repeat(kHeartbeatIntervalSeconds, [weak] {
            if (auto channel = weak.lock()) channel->heartbeat();
        });
        {
            std::lock_guard lock(self.lock_);
            if (self.closed_) return;
            self.heartbeat_ = std::move(timer);
        }
        if (self.callbacks_.onReady) self.callbacks_.onReady();
    });
}

void CastChannel::received(std::string_view bytes) {
    auto messages = reader_.append(bytes);
    if (!messages) {
        lose(std::string(kLostGarbled));
        return;
    }
    if (messages->empty()) return;
    {
        std::lock_guard lock(lock_);
        lastHeard_ = delivery_.now();
    }
    for (auto& message : *messages) {
        if (message.nameSpace == kHeartbeatNamespace) {
            if (message.type() == "PING")
                send(message.source, kHeartbeatNamespace, {{"type", "PONG"}});
            continue;
        }
        debugLine("in", message);
        deliver([message = std::move(message)](CastChannel& self) {
            if (!self.closed() && self.callbacks_.onMessage) self.callbacks_.onMessage(message);
        });
    }
}

void CastChannel::heartbeat() {
    double heard = 0;
    {
        std::lock_guard lock(lock_);
        if (closed_) return;
        heard = lastHeard_;
    }
    if (delivery_.now() - heard > kHeartbeatLossSeconds) {
        lose(std::string(kLostSilent));
        return;
    }
    send(kReceiverID, kHeartbeatNamespace, {{"type", "PING"}});
}

std::optional<int64_t> CastChannel::send(std::string_view destination, std::string_view nameSpace,
                                         nlohmann::json payload, std::function<void()> completion) {
    const auto finish = [this, &completion] {
        if (completion)
            deliver([completion = std::move(completion)](CastChannel&) { completion(); });
    };
    if (!payload.is_object()) {
        finish();
        return std::nullopt;
    }
    std::string type;
    if (auto it = payload.find("type"); it != payload.end() && it->is_string())
        type = it->get<std::string>();
    std::optional<int64_t> requestID;
    {
        std::lock_guard lock(lock_);
        if (closed_) {
            finish();
            return std::nullopt;
        }
        if (!isUnnumbered(type) && !payload.contains("requestId")) {
            requestID = nextRequestID_++;
            payload["requestId"] = *requestID;
        }
    }
    CastMessage message;
    message.source = kSenderID;
    message.destination = destination;
    message.nameSpace = nameSpace;
    try {
        message.payload = payload.dump();
    } catch (const nlohmann::json::exception&) {
        // Text that is not UTF-8 cannot be serialised: nothing goes out.
        finish();
        return requestID;
    }
    debugLine("out", message);
    connection_->write(message.framed());
    finish();
    return requestID;
}

bool CastChannel::closed() const {
    std::lock_guard lock(lock_);
    return closed_;
}

bool CastChannel::shutDown() {
    std::unique_ptr<dispatch::TimerHandle> heartbeat;
    {
        std::lock_guard lock(lock_);
        if (closed_) return false;
        closed_ = true;
        heartbeat = std::move(heartbeat_);
    }
    connection_->cancel();
    // A firing already on its way finds the channel closed.
    if (heartbeat) heartbeat->cancel();
    return true;
}

void CastChannel::lose(std::string reason) {
    if (!shutDown()) return;
    deliver([reason = std::move(reason)](CastChannel& self) {
        if (self.callbacks_.onLost) self.callbacks_.onLost(reason);
    });
}

void CastChannel::close() {
    shutDown();
}

}  // namespace vt::cast
