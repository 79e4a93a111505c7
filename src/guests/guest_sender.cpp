#include "guests/guest_sender.h"

#include <cstdio>
#include <cstdlib>
#include <random>
#include <utility>

#include "sendspin/lead.h"
#include "sendspin/protocol.h"

namespace vt::guests {

namespace {

namespace Protocol = sendspin::SendspinProtocol;

std::string freshUUID() {
    std::random_device device;
    std::mt19937_64 generator((static_cast<uint64_t>(device()) << 32) ^ device());
    const uint64_t a = generator(), b = generator();
    char text[37];
    std::snprintf(text, sizeof text, "%08x-%04x-4%03x-%04x-%012llx", static_cast<unsigned>(a >> 32),
                  static_cast<unsigned>((a >> 16) & 0xffff), static_cast<unsigned>(a & 0xfff),
                  static_cast<unsigned>(0x8000 | ((b >> 48) & 0x3fff)),
                  static_cast<unsigned long long>(b & 0xffffffffffffULL));
    return text;
}

}  // namespace

double sendspinLeadMs() {
    return sendspin::configuredLeadMs();
}

double GuestSender::streamLatencyMs() {
    return sendspinLeadMs() + Protocol::clientHeadroomMs;
}

const char* GuestSender::rawValue(Status status) {
    switch (status) {
        case Status::waiting:
            return "waiting";
        case Status::playing:
            return "playing";
        case Status::reconnecting:
            return "reconnecting";
        case Status::paused:
            return "paused";
    }
    return "paused";
}

GuestSender::GuestSender(std::string clientID, int64_t connection, net::SendspinTransport& server,
                         Render render, dispatch::MainQueue& queue, dispatch::MainQueue& mainQueue,
                         std::string serverName, std::shared_ptr<sendspin::PumpClock> clock)
    : clientID_(std::move(clientID)),
      queue_(queue),
      mainQueue_(mainQueue),
      serverID_(freshUUID()),
      serverName_(std::move(serverName)),
      gate_(server),
      stream_(gate_, sendspinLeadMs(), "GuestPump", std::move(render), std::move(clock)),
      connection_(connection),
      status_(Status::paused) {}

GuestSender::~GuestSender() {
    stop();
}

GuestSender::Status GuestSender::currentStatus() const {
    std::lock_guard guard(lock_);
    return status_;
}

void GuestSender::setRender(Render render) {
    stream_.setRender(std::move(render));
}

void GuestSender::handle(std::string_view text, int64_t from) {
    std::lock_guard guard(lock_);
    if (connection_ != from) return;
    const auto message = Protocol::parse(text);
    if (!message) return;
    if (const auto* hello = std::get_if<Protocol::ClientHello>(&*message)) {
        if (helloSeen_) return;
        helloSeen_ = true;
        gate_.sendText(Protocol::serverHello(serverID_, serverName_, hello->supportedRoles), from);
        stream_.sendMetadata(from);
        scheduleStartLocked();
    } else if (std::holds_alternative<Protocol::ClientGoodbye>(*message)) {
        dropLocked();
    }
}

void GuestSender::attach(int64_t connection) {
    std::lock_guard guard(lock_);
    connection_ = connection;
    helloSeen_ = false;
    streaming_ = false;
    ++startToken_;
    gate_.close();
    reportLocked(engineRunning_ ? Status::waiting : Status::paused);
}

void GuestSender::detach() {
    std::lock_guard guard(lock_);
    dropLocked();
}

void GuestSender::dropLocked() {
    connection_.reset();
    helloSeen_ = false;
    streaming_ = false;
    ++startToken_;
    // The pump keeps draining the slot without a target; only pause and stop end it.
    gate_.close();
    reportLocked(Status::reconnecting);
}

void GuestSender::scheduleStartLocked() {
    if (!engineRunning_ || !helloSeen_ || streaming_) return;
    const uint64_t token = ++startToken_;
    startTimer_ = queue_.postAfter(startDelaySeconds, [this, token] {
        std::lock_guard guard(lock_);
        if (token != startToken_ || !engineRunning_ || !helloSeen_ || streaming_ || !connection_) {
            return;
        }
        gate_.open(*connection_);
        stream_.begin(*connection_);
        streaming_ = true;
        reportLocked(Status::playing);
    });
}

void GuestSender::play() {
    std::lock_guard guard(lock_);
    engineRunning_ = true;
    if (status_ == Status::paused) {
        reportLocked(connection_ ? Status::waiting : Status::reconnecting);
    }
    scheduleStartLocked();
}

void GuestSender::pause() {
    std::unique_lock guard(lock_);
    engineRunning_ = false;
    ++startToken_;
    if (streaming_ && connection_) {
        gate_.close();
        gate_.sendText(Protocol::streamEnd(), *connection_);
    }
    streaming_ = false;
    stream_.stopPump();
    reportLocked(Status::paused);
}

void GuestSender::stop() {
    std::unique_ptr<dispatch::TimerHandle> timer;
    {
        std::lock_guard guard(lock_);
        engineRunning_ = false;
        ++startToken_;
        if (streaming_ && connection_) {
            gate_.close();
            gate_.sendText(Protocol::streamEnd(), *connection_);
        }
        streaming_ = false;
        connection_.reset();
        gate_.close();
        timer = std::move(startTimer_);
        onStatus = nullptr;
    }
    if (timer) timer->cancel();
    stream_.stopPump();
}

void GuestSender::send(std::optional<sendspin::TrackInfo> meta) {
    std::lock_guard guard(lock_);
    stream_.setMetadata(std::move(meta));
    if (helloSeen_ && connection_) stream_.sendMetadata(*connection_);
}

void GuestSender::reportLocked(Status status) {
    if (status == status_) return;
    status_ = status;
    if (!onStatus) return;
    mainQueue_.post([callback = onStatus, status] { callback(status); });
}

}  // namespace vt::guests
