#include "cast/cast_sender_base.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "cast/cast_message.h"
#include "cast/json_fields.h"

namespace vt::cast {
namespace {

// From a thread other than `queue`'s: runs `task` on the queue and waits up
// to `seconds` for it to call the done function it is given, so a caller
// that stops a sender knows the TV was asked before it goes on, without
// hanging on a queue that is stuck.
void runAndWait(dispatch::MainQueue& queue, double seconds,
                std::function<void(std::function<void()> done)> task) {
    struct Done {
        std::mutex lock;
        std::condition_variable signal;
        bool done = false;
    };
    auto done = std::make_shared<Done>();
    queue.post([done, task = std::move(task)] {
        task([done] {
            std::lock_guard lock(done->lock);
            done->done = true;
            done->signal.notify_all();
        });
    });
    std::unique_lock lock(done->lock);
    done->signal.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return done->done; });
}

}  // namespace

CastSenderBase::CastSenderBase(CastTarget target, dispatch::MainQueue& queue,
                               dispatch::MainQueue& mainQueue)
    : target_(std::move(target)), queue_(queue), mainQueue_(mainQueue) {}

void CastSenderBase::start() {
    const std::weak_ptr<CastSenderBase> weak = weak_from_this();
    queue_.post([weak] {
        auto s = weak.lock();
        if (!s || s->started_ || s->ended_) return;
        s->started_ = true;
        if (!s->target_.host) {
            s->report(CastStatus::failed("unresolved host"));
            return;
        }
        s->begin();
    });
}

void CastSenderBase::stop() {
    if (queue_.isMainThread()) {
        finish(true);
    } else {
        const std::weak_ptr<CastSenderBase> weak = weak_from_this();
        runAndWait(queue_, kStopWaitSeconds, [weak](std::function<void()> done) {
            if (auto s = weak.lock())
                s->finish(true, std::move(done));
            else
                done();
        });
    }
    // Past any de-duplication of reports: the supervisor counts on the last word.
    postToMain([](CastSenderBase& s) {
        if (s.onStatus) s.onStatus({CastStatus::Kind::stopped, {}});
    });
}

void CastSenderBase::report(CastStatus status) {
    postToMain([status = std::move(status)](CastSenderBase& s) {
        if (s.onStatus) s.onStatus(status);
    });
}

void CastSenderBase::postToMain(std::function<void(CastSenderBase&)> task) {
    const std::weak_ptr<CastSenderBase> weak = weak_from_this();
    mainQueue_.post([weak, task = std::move(task)] {
        if (auto s = weak.lock()) task(*s);
    });
}

void CastSenderBase::openChannel(const CastConnect& connect, std::string appID) {
    appID_ = std::move(appID);
    const auto port = static_cast<uint16_t>(std::clamp(target_.port, 0, 65535));
    channel_ = CastChannel::make(connect(*target_.host, port), queue_);
    const std::weak_ptr<CastSenderBase> weak = weak_from_this();
    channel_->start({
        .onReady =
            [weak] {
                auto s = weak.lock();
                if (!s || !s->running()) return;
                s->channel_->send(kReceiverID, kConnectionNamespace,
                                  {{"type", "CONNECT"}, {"origin", nlohmann::json::object()}});
                s->channel_->send(kReceiverID, kReceiverNamespace,
                                  {{"type", "LAUNCH"}, {"appId", s->appID_}});
                s->launchSent_ = true;
            },
        .onMessage =
            [weak](const CastMessage& m) {
                if (auto s = weak.lock()) s->receive(m);
            },
        .onLost =
            [weak](const std::string& reason) {
                auto s = weak.lock();
                if (!s || !s->running()) return;
                s->report(CastStatus::failed(reason));
                s->finish(false);
            },
    });
}

void CastSenderBase::receive(const CastMessage& message) {
    if (ended_) return;
    const nlohmann::json json = message.json();
    const std::string type = text(json, "type");
    if (type == "RECEIVER_STATUS") {
        receiverStatus(json);
    } else if (type == "CLOSE" && transportID_ && message.source == *transportID_) {
        replaced();
    } else {
        handle(message, json, type);
    }
}

void CastSenderBase::receiverStatus(const nlohmann::json& json) {
    const auto status = json.find("status");
    nlohmann::json applications = nlohmann::json::array();
    if (status != json.end() && status->is_object()) {
        const auto list = status->find("applications");
        if (list != status->end() && list->is_array()) applications = *list;
    }
    if (!transportID_) {
        if (!launchSent_) return;
        for (const auto& app : applications) {
            if (!app.is_object() || text(app, "appId") != appID_) continue;
            const std::string transport = text(app, "transportId");
            const std::string session = text(app, "sessionId");
            if (transport.empty() || session.empty()) continue;
            transportID_ = transport;
            sessionID_ = session;
            channel_->send(*transportID_, kConnectionNamespace,
                           {{"type", "CONNECT"}, {"origin", nlohmann::json::object()}});
            launched();
            return;
        }
        return;
    }
    for (const auto& app : applications)
        if (app.is_object() && text(app, "sessionId") == *sessionID_) return;
    // Somebody else took the TV.
    replaced();
}

void CastSenderBase::replaced() {
    if (!running()) return;
    report({CastStatus::Kind::replaced, {}});
    finish(false);
}

bool CastSenderBase::markEnded() {
    if (ended_) return false;
    ended_ = true;
    for (auto& timer : timers_) timer->cancel();
    timers_.clear();
    return true;
}

void CastSenderBase::endChannel(bool stopTV) {
    if (!channel_) return;
    if (!stopTV || !sessionID_) {
        channel_->close();
        return;
    }
    const std::weak_ptr<CastChannel> weak = channel_;
    const auto closeChannel = [weak] {
        if (auto c = weak.lock()) c->close();
    };
    channel_->send(kReceiverID, kReceiverNamespace, {{"type", "STOP"}, {"sessionId", *sessionID_}},
                   closeChannel);
    timers_.push_back(queue_.postAfter(kStopWriteWaitSeconds, closeChannel));
}

}  // namespace vt::cast
