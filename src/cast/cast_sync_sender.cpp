#include "cast/cast_sync_sender.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "cast/json_fields.h"
#include "cast/local_address.h"
#include "cast/tls_cast_connection.h"
#include "sendspin/lead.h"
#include "sendspin/protocol.h"

namespace vt::cast {
namespace {

namespace Protocol = sendspin::SendspinProtocol;

std::string freshServerID() {
    std::random_device device;
    char out[40];
    std::snprintf(out, sizeof out, "vellatone-cast-%08x%08x", device(), device());
    return out;
}

// The receiver's figures for the debug line, "-" where it gave none.
std::string figure(const nlohmann::json& object, const char* key) {
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) return "-";
    return it->is_string() ? it->get<std::string>() : it->dump();
}

double numberOr(const nlohmann::json& object, const char* key, double fallback) {
    const auto it = object.find(key);
    return it != object.end() && it->is_number() ? it->get<double>() : fallback;
}

}  // namespace

std::string syncReceiverAppID() {
    if (const char* id = std::getenv("VELLATONE_CAST_SYNC_APP"); id && *id) return id;
    return std::string(kSyncReceiverAppID);
}

double CastSyncSender::latencyMs() {
    return sendspin::configuredLeadMs() + kReceiverHeadroomMs + kReceiverOutputMs;
}

std::shared_ptr<CastSyncSender> CastSyncSender::make(CastTarget target, Render render,
                                                     dispatch::MainQueue& queue,
                                                     dispatch::MainQueue& mainQueue, Parts parts) {
    return std::shared_ptr<CastSyncSender>(new CastSyncSender(std::move(target), std::move(render),
                                                              queue, mainQueue, std::move(parts)));
}

CastSyncSender::CastSyncSender(CastTarget target, Render render, dispatch::MainQueue& queue,
                               dispatch::MainQueue& mainQueue, Parts parts)
    : CastSenderBase(std::move(target), queue, mainQueue),
      parts_(std::move(parts)),
      appID_(syncReceiverAppID()),
      serverID_(freshServerID()) {
    if (!parts_.connect) {
        parts_.connect = [](const std::string& host, uint16_t port) {
            return std::make_unique<TlsCastConnection>(host, port);
        };
    }
    if (!parts_.endpoint) parts_.endpoint = std::make_shared<SendspinServerEndpoint>();
    if (!parts_.localAddress) parts_.localAddress = localAddressReaching;
    stream_ = std::make_unique<sendspin::SendspinStream>(
        *parts_.endpoint, sendspin::configuredLeadMs(), "CastSyncPump",
        parts_.pump ? std::move(render) : Render{});
}

CastSyncSender::~CastSyncSender() {
    running_ = false;
    if (channel_) channel_->close();
    stream_->stopPump();
    parts_.endpoint->stop();
}

void CastSyncSender::report(CastStatus status) {
    if (lastStatus_ == status) return;
    lastStatus_ = status;
    CastSenderBase::report(std::move(status));
}

void CastSyncSender::begin() {
    const std::weak_ptr<CastSyncSender> weak = selfAs<CastSyncSender>();
    const std::weak_ptr<SendspinEndpoint> endpoint = parts_.endpoint;
    parts_.endpoint->setEvents({
        .connected =
            [weak, &queue = queue_](int64_t id) {
                queue.post([weak, id] {
                    if (auto self = weak.lock()) self->clientConnected(id);
                });
            },
        .text =
            [weak, endpoint, &queue = queue_](int64_t id, std::string_view text,
                                              int64_t receivedUs) {
                // The server only ever writes to its current client, so a
                // clock question from a replaced one goes unanswered anyway.
                if (auto via = endpoint.lock())
                    if (sendspin::SendspinStream::answerClock(text, id, receivedUs, *via)) return;
                queue.post([weak, id, message = std::string(text)] {
                    if (auto self = weak.lock()) self->clientText(id, message);
                });
            },
        .gone =
            [weak, &queue = queue_](int64_t id) {
                queue.post([weak, id] {
                    if (auto self = weak.lock()) self->clientGone(id);
                });
            },
    });
    try {
        parts_.endpoint->start();
    } catch (const net::ServerError& error) {
        report(CastStatus::failed(std::string("cannot serve the stream: ") + error.what()));
        return;
    }
    running_ = true;
    report({CastStatus::Kind::connecting, {}});
    // Not a measurement: the receiver plays at the stamps, so the plan has
    // the row's latency from the first moment.
    mainQueue_.post([weak, ms = latencyMs()] {
        if (auto self = weak.lock())
            if (self->onLatency) self->onLatency(ms);
    });

    openChannel(parts_.connect, appID_);
    // A TV that neither launches the application nor says it cannot.
    later<CastSyncSender>(kLaunchLimitSeconds, [](CastSyncSender& self) {
        if (self.running_ && !self.sessionID_) {
            self.report(CastStatus::failed(std::string(kSyncReceiverUnavailable)));
            self.finish(true);
        }
    });
}

void CastSyncSender::handle(const CastMessage& message, const nlohmann::json& json,
                            const std::string& type) {
    if (message.nameSpace == kSendspinNamespace) {
        if (type == "status") receiverReport(json);
    } else if (type == "LAUNCH_ERROR") {
        // What a TV without the application answers.
        report(CastStatus::failed(std::string(kSyncReceiverUnavailable)));
        finish(false);
    }
}

void CastSyncSender::launched() {
    report({CastStatus::Kind::buffering, {}});
    sendConfig();
    if (ended_) return;
    // A receiver still loading misses the first config: say it again until it joins.
    const std::weak_ptr<CastSyncSender> weak = selfAs<CastSyncSender>();
    configTimer_ = queue_.repeat(kConfigRepeatSeconds, [weak] {
        auto self = weak.lock();
        if (self && self->running_ && !self->session_.everConnected) self->sendConfig();
    });
    later<CastSyncSender>(kJoinLimitSeconds, [](CastSyncSender& self) {
        // The TV runs the application but never reached our server: a firewall.
        if (self.running_ && !self.session_.everConnected) {
            self.report(
                {CastStatus::Kind::unreachable, {}, self.parts_.endpoint->advertisedPort()});
            self.finish(true);
        }
    });
    later<CastSyncSender>(kSyncLimitSeconds, [](CastSyncSender& self) {
        if (self.running_ && self.session_.everConnected && !self.session_.synced &&
            !self.session_.everSynced) {
            self.report(CastStatus::failed("the TV never synced its clock"));
            self.finish(true);
        }
    });
}

void CastSyncSender::sendConfig() {
    const auto address = parts_.localAddress(*target_.host);
    if (!address) {
        report(CastStatus::failed("no network path to the TV"));
        finish(true);
        return;
    }
    const std::string url = "ws://" + *address + ":" +
                            std::to_string(parts_.endpoint->advertisedPort()) +
                            std::string(parts_.endpoint->path());
    channel_->send(*transportID_, kSendspinNamespace,
                   {{"type", "config"},
                    {"serverUrl", url},
                    {"playerId", "vellatone-" + target_.id},
                    {"playerName", parts_.senderName},
                    {"syncDelay", 0},
                    {"codecs", nlohmann::json::array({"pcm"})}});
}

void CastSyncSender::clientConnected(int64_t id) {
    if (ended_) return;
    session_.client = id;
    session_.everConnected = true;
    if (configTimer_) configTimer_->cancel();
}

void CastSyncSender::clientText(int64_t id, const std::string& message) {
    if (ended_ || session_.client != id) return;
    const auto parsed = Protocol::parse(message);
    if (!parsed) return;
    const auto* hello = std::get_if<Protocol::ClientHello>(&*parsed);
    if (!hello) return;
    session_.helloSeen = true;
    session_.streamingTo = id;
    parts_.endpoint->sendText(
        Protocol::serverHello(serverID_, parts_.senderName, hello->supportedRoles), id);
    stream_->setMetadata(meta_);
    stream_->begin(id);
    stream_->sendMetadata(id);
}

void CastSyncSender::clientGone(int64_t id) {
    if (ended_ || session_.client != id) return;
    session_.client.reset();
    session_.streamingTo.reset();
    if (session_.synced) {
        session_.synced = false;
        apply(CastSyncSession::Change::lost);
    }
}

void CastSyncSender::receiverReport(const nlohmann::json& json) {
    const auto found = json.find("status");
    if (found == json.end() || !found->is_object()) return;
    const nlohmann::json& status = *found;
    const std::string state = text(status, "state");
    const auto syncedField = status.find("synced");
    const bool synced =
        syncedField != status.end() && syncedField->is_boolean() && syncedField->get<bool>();
    if (castDebugEnabled()) {
        nlohmann::json info = nlohmann::json::object();
        if (const auto it = status.find("syncInfo"); it != status.end() && it->is_object())
            info = *it;
        std::fprintf(stderr,
                     "[sendspin] rx state=%s synced=%s offset=%s err=%s syncErrorMs=%.2f "
                     "drift=%.4f%% resyncs=%d msg=%s dropped=%d\n",
                     state.c_str(), synced ? "true" : "false", figure(info, "offset").c_str(),
                     figure(info, "error").c_str(), numberOr(info, "syncErrorMs", 0.0),
                     numberOr(info, "clockDriftPercent", 0.0),
                     static_cast<int>(numberOr(info, "resyncCount", 0.0)),
                     figure(status, "message").c_str(),
                     static_cast<int>(numberOr(status, "dropped", 0.0)));
        if (state != lastReceiverState_)
            std::fprintf(stderr, "[sendspin] status %s\n", state.c_str());
    }
    lastReceiverState_ = state;
    if (state == "error" && !text(status, "error").empty() && !session_.everSynced) {
        report(CastStatus::failed(std::string(kSyncReceiverUnavailable)));
        finish(true);
        return;
    }
    // After a first sync an error is only a receiver that is not playing.
    apply(session_.receiverReport(synced, state == "playing"));
}

void CastSyncSender::apply(CastSyncSession::Change change) {
    switch (change) {
        case CastSyncSession::Change::none:
            return;
        case CastSyncSession::Change::gained:
            report({CastStatus::Kind::streaming, {}});
            return;
        case CastSyncSession::Change::lost: {
            report({CastStatus::Kind::buffering, {}});
            const uint64_t token = ++resyncToken_;
            later<CastSyncSender>(kResyncLimitSeconds, [token](CastSyncSender& self) {
                if (self.running_ && self.resyncToken_ == token && !self.session_.synced) {
                    self.report(CastStatus::failed("the TV lost the stream"));
                    self.finish(true);
                }
            });
            return;
        }
    }
}

void CastSyncSender::finish(bool stopTV, std::function<void()> then) {
    if (markEnded()) {
        running_ = false;
        if (configTimer_) configTimer_->cancel();
        stream_->stopPump();
        parts_.endpoint->stop();
        endChannel(stopTV);
    }
    if (then) then();
}

void CastSyncSender::send(std::optional<sendspin::TrackInfo> meta) {
    const std::weak_ptr<CastSyncSender> weak = selfAs<CastSyncSender>();
    queue_.post([weak, meta = std::move(meta)] {
        auto self = weak.lock();
        if (!self) return;
        self->meta_ = meta;
        self->stream_->setMetadata(meta);
        if (self->session_.helloSeen && self->session_.client)
            self->stream_->sendMetadata(*self->session_.client);
    });
}

}  // namespace vt::cast
