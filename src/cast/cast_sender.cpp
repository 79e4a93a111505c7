#include "cast/cast_sender.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <thread>
#include <vector>

#include "cast/cast_stream_server.h"
#include "cast/json_fields.h"
#include "cast/local_address.h"
#include "cast/tls_cast_connection.h"
#include "cast/wav_stream.h"
#include "dispatch/clock.h"
#include "engine/pcm16_quantizer.h"
#include "net/sendspin_websocket_server.h"

namespace vt::cast {
namespace {

constexpr size_t kPumpFrames = 441;  // 10 ms at 44.1 kHz
constexpr double kPumpRoundSeconds = 0.01;
constexpr double kPumpGiveUpBehindSeconds = -0.5;
constexpr size_t kPumpStackBytes = 512 * 1024;
constexpr double kPumpExitWaitSeconds = 0.05;
constexpr int kPumpDebugEvery = 200;
constexpr int kMusicTrackMetadata = 3;

std::string formatted(const char* format, std::optional<double> value) {
    if (!value) return "-";
    char out[32];
    std::snprintf(out, sizeof out, format, *value);
    return out;
}

}  // namespace

const char* rawValue(CastStatus::Kind kind) {
    switch (kind) {
        case CastStatus::Kind::failed:
            return "failed";
        case CastStatus::Kind::connecting:
            return "connecting";
        case CastStatus::Kind::buffering:
            return "buffering";
        case CastStatus::Kind::streaming:
            return "streaming";
        case CastStatus::Kind::unreachable:
            return "unreachable";
        case CastStatus::Kind::replaced:
            return "replaced";
        case CastStatus::Kind::stopped:
            return "stopped";
    }
    return "stopped";
}

std::shared_ptr<CastSender> CastSender::make(CastTarget target, Render render,
                                             dispatch::MainQueue& queue,
                                             dispatch::MainQueue& mainQueue, Parts parts) {
    return std::shared_ptr<CastSender>(
        new CastSender(std::move(target), std::move(render), queue, mainQueue, std::move(parts)));
}

CastSender::CastSender(CastTarget target, Render render, dispatch::MainQueue& queue,
                       dispatch::MainQueue& mainQueue, Parts parts)
    : CastSenderBase(std::move(target), queue, mainQueue),
      render_(std::move(render)),
      parts_(std::move(parts)) {
    if (!parts_.connect) {
        parts_.connect = [](const std::string& host, uint16_t port) {
            return std::make_unique<TlsCastConnection>(host, port);
        };
    }
    if (!parts_.stream) parts_.stream = std::make_shared<CastStreamServer>();
    if (!parts_.localAddress) parts_.localAddress = localAddressReaching;
}

CastSender::~CastSender() {
    pumpState_->running = false;
    if (channel_) channel_->close();
    parts_.stream->setOnStreamClient({});
    parts_.stream->stop();
}

void CastSender::publish(double seconds) {
    const std::weak_ptr<CastSender> weak = selfAs<CastSender>();
    mainQueue_.post([weak, ms = seconds * 1000.0] {
        if (auto self = weak.lock())
            if (self->onLatency) self->onLatency(ms);
    });
}

void CastSender::begin() {
    const std::weak_ptr<CastSender> weak = selfAs<CastSender>();
    parts_.stream->setOnStreamClient([weak, &queue = queue_] {
        queue.post([weak] {
            if (auto self = weak.lock()) self->streamFetched();
        });
    });
    try {
        parts_.stream->start();
    } catch (const net::ServerError& error) {
        report(CastStatus::failed(std::string("cannot serve the stream: ") + error.what()));
        return;
    }
    pumpState_->running = true;
    report({CastStatus::Kind::connecting, {}});
    if (parts_.pump) startPump();

    openChannel(parts_.connect, std::string(kMediaReceiverAppID));
    later<CastSender>(kLaunchLimitSeconds, [](CastSender& self) {
        if (self.running() && !self.loadSent_) {
            self.report(CastStatus::failed("the TV did not start its player"));
            self.finish(true);
        }
    });
}

void CastSender::handle(const CastMessage&, const nlohmann::json& json, const std::string& type) {
    if (type == "LAUNCH_ERROR") {
        std::string reason = text(json, "reason");
        if (reason.empty()) reason = "refused";
        report(CastStatus::failed("the TV would not start its player (" + reason + ")"));
        finish(false);
    } else if (type == "MEDIA_STATUS") {
        mediaStatus(json);
    } else if (type == "LOAD_FAILED") {
        loadFailed();
    } else if (type == "INVALID_REQUEST") {
        const auto requestID = integer(json, "requestId");
        if (requestID && rateRequests_.erase(*requestID)) {
            if (const auto instead = controller_.rateRejected()) setRate(*instead);
        } else if (loadSent_ && !mediaSessionID_ && (!requestID || requestID == loadRequestID_)) {
            loadFailed();
        }
    }
}

nlohmann::json CastSender::mediaMetadata(const std::string& address) const {
    nlohmann::json metadata = {{"metadataType", kMusicTrackMetadata}};
    metadata["title"] = meta_ && !meta_->title.empty() ? meta_->title : "Vellatone";
    if (meta_ && !meta_->artist.empty()) metadata["artist"] = meta_->artist;
    if (meta_ && !meta_->album.empty()) metadata["albumName"] = meta_->album;
    if (meta_ && meta_->artworkPath) {
        const std::string url =
            "http://" + address + ":" + std::to_string(parts_.stream->advertisedPort()) +
            "/art?v=" + std::to_string(std::hash<std::string>{}(*meta_->artworkPath));
        metadata["images"] = nlohmann::json::array({{{"url", url}}});
    }
    return metadata;
}

nlohmann::json CastSender::media() const {
    const std::string url = "http://" + address_ + ":" +
                            std::to_string(parts_.stream->advertisedPort()) + "/stream.wav";
    return {{"contentId", url},
            {"contentUrl", url},
            {"streamType", "LIVE"},
            {"contentType", "audio/wav"},
            {"metadata", mediaMetadata(address_)}};
}

void CastSender::sendMetadata() {
    if (!running() || !transportID_ || !mediaSessionID_ || !currentItemID_) return;
    // The loaded item with new words and picture: a new LOAD would make the
    // TV fetch the stream again and lose its lock, an update of the item in
    // its queue does not.
    nlohmann::json item = {{"itemId", *currentItemID_}, {"media", media()}};
    channel_->send(*transportID_, kMediaNamespace,
                   {{"type", "QUEUE_UPDATE"},
                    {"mediaSessionId", *mediaSessionID_},
                    {"items", nlohmann::json::array({std::move(item)})}});
}

void CastSender::launched() {
    const auto address = parts_.localAddress(*target_.host);
    if (!address) {
        report(CastStatus::failed("no network path to the TV"));
        finish(true);
        return;
    }
    address_ = *address;
    loadRequestID_ = channel_->send(*transportID_, kMediaNamespace,
                                    {{"type", "LOAD"}, {"autoplay", true}, {"media", media()}});
    loadSent_ = true;
    report({CastStatus::Kind::buffering, {}});
    later<CastSender>(kFetchLimitSeconds, [](CastSender& self) {
        // The TV was told where the stream is and never came: a firewall.
        if (self.running() && self.parts_.stream->clientsServed() == 0) {
            self.report({CastStatus::Kind::unreachable, {}, self.parts_.stream->advertisedPort()});
            self.finish(true);
        }
    });
    later<CastSender>(kCatchUpLimitSeconds, [](CastSender& self) {
        if (self.running() && !self.controller_.locked() &&
            self.parts_.stream->clientsServed() > 0) {
            self.report(CastStatus::failed("the TV never caught up"));
            self.finish(true);
        }
    });
    startPolling();
}

void CastSender::startPolling() {
    const std::weak_ptr<CastSender> weak = selfAs<CastSender>();
    const auto tick = [weak] {
        auto self = weak.lock();
        if (!self || !self->running() || !self->mediaSessionID_ || !self->transportID_) return;
        const auto id = self->channel_->send(
            *self->transportID_, kMediaNamespace,
            {{"type", "GET_STATUS"}, {"mediaSessionId", *self->mediaSessionID_}});
        if (id) self->statusSentAt_[*id] = self->queue_.now();
    };
    // The first poll after a second, then every half second.
    timers_.push_back(queue_.postAfter(kPollFirstSeconds, [weak, tick] {
        auto self = weak.lock();
        if (!self || self->ended_) return;
        tick();
        self->poll_ = self->queue_.repeat(kPollIntervalSeconds, tick);
    }));
}

void CastSender::loadFailed() {
    if (!running()) return;
    if (parts_.stream->clientsServed() > 0)
        report(CastStatus::failed("the TV could not play the stream"));
    else
        report({CastStatus::Kind::unreachable, {}, parts_.stream->advertisedPort()});
    finish(true);
}

void CastSender::setRate(double rate) {
    if (!transportID_ || !mediaSessionID_) return;
    const auto id = channel_->send(*transportID_, kMediaNamespace,
                                   {{"type", "SET_PLAYBACK_RATE"},
                                    {"mediaSessionId", *mediaSessionID_},
                                    {"playbackRate", rate}});
    if (id) rateRequests_[*id] = rate;
    const double now = queue_.now();
    settleUntil_ = now + kRateSettleSeconds;
    if (const auto lag = reckoning_.at(now)) reckoning_.start(*lag, now, rate);
}

void CastSender::streamFetched() {
    if (ended_ || parts_.stream->clientsServed() < 2 || !controller_.locked()) return;
    // The TV dropped the stream and fetched it again: all timing is void.
    pumpState_->audible = false;
    controller_ = CastLagController();
    estimator_.reset();
    reckoning_.clear();
    publishedMeasured_ = false;
    publisher_.set(1.0, queue_.now());
    publish(1.0);
    report({CastStatus::Kind::buffering, {}});
}

void CastSender::mediaStatus(const nlohmann::json& json) {
    const auto list = json.find("status");
    if (list == json.end() || !list->is_array() || list->empty() || !(*list)[0].is_object()) return;
    const nlohmann::json& status = (*list)[0];
    if (const auto id = integer(status, "mediaSessionId")) mediaSessionID_ = *id;
    if (const auto id = integer(status, "currentItemId")) currentItemID_ = *id;

    const std::string state = text(status, "playerState");
    if (state == "IDLE") {
        const std::string reason = text(status, "idleReason");
        if (reason == "CANCELLED") {
            if (running()) {
                report({CastStatus::Kind::replaced, {}});
                finish(false);
            }
        } else if (reason == "ERROR") {
            loadFailed();
        } else if (reason == "FINISHED") {
            if (running()) {
                report(CastStatus::failed("the stream ended"));
                finish(true);
            }
        }
        return;
    }
    const auto currentTime = number(status, "currentTime");
    if (!currentTime) return;
    const double now = queue_.now();
    const bool playing = state == "PLAYING";

    if (const auto rate = number(status, "playbackRate"); rate && *rate != tvRate_) {
        // A lag measured at one rate says nothing of another.
        tvRate_ = *rate;
        estimator_.reset();
        settleUntil_ = now + kRateSettleSeconds;
    }
    const std::optional<double> start = parts_.stream->clientStart();
    if (start != estimatorStreamStart_ || (playing && !start)) {
        // A new fetch of the stream is a new time line.
        estimator_.reset();
        reckoning_.clear();
        estimatorStreamStart_ = start;
    }
    std::optional<double> rawLag;
    if (const auto requestID = integer(json, "requestId")) {
        if (const auto sent = statusSentAt_.find(*requestID); sent != statusSentAt_.end()) {
            const double sentAt = sent->second;
            statusSentAt_.erase(sent);
            if (start) {
                const double midpoint = (now + sentAt) * 0.5;
                rawLag = (midpoint - *start) - *currentTime;
                if (estimator_.noteRTT(now - sentAt) && playing && now >= settleUntil_)
                    estimator_.add(midpoint, *currentTime);
            }
        }
    }
    std::optional<double> lag;
    if (start) lag = estimator_.lag(*start, tvRate_);
    const bool measured = lag.has_value();
    if (measured) reckoning_.start(*lag, now, tvRate_);
    // While a correction runs and the estimator gathers again, the lag is
    // carried forward by the rate, so the correction can end on time.
    if (!lag && start && controller_.rate() != 1.0) lag = reckoning_.at(now);

    if (castDebugEnabled()) {
        const auto rtt = estimator_.medianRTT();
        std::fprintf(
            stderr,
            "[cast] %.3f %s t=%.3f lag=%.3f fit=%s n=%zu ppm=%s rtt=%.1fms rate=%.2f target=%.2f\n",
            now, state.c_str(), *currentTime, rawLag.value_or(0.0), formatted("%.4f", lag).c_str(),
            estimator_.count(), formatted("%.0f", estimator_.driftPPM()).c_str(),
            rtt ? *rtt * 1000.0 : 0.0, tvRate_, controller_.target());
    }

    if (state == "BUFFERING" && controller_.locked()) {
        if (!stalledSince_) stalledSince_ = now;
        if (now - *stalledSince_ <= kStallLimitSeconds) {
            estimator_.reset();
        } else if (running()) {
            report(CastStatus::failed("the TV stopped receiving the stream"));
            finish(true);
            return;
        }
    }
    if (playing) stalledSince_.reset();
    if (state == "PAUSED") {
        if (!pausedSince_) pausedSince_ = now;
        if (now - *pausedSince_ > kPausedLimitSeconds && running()) {
            // Paused from the TV's own remote: the user has taken it over.
            report({CastStatus::Kind::replaced, {}});
            finish(false);
            return;
        }
    } else {
        pausedSince_.reset();
    }

    if (playing && (!start || !lag)) return;
    const auto decision = controller_.observe(playing ? *lag : 0.0, *currentTime, state);
    if (decision.rate) setRate(*decision.rate);
    if (decision.didLock) {
        pumpState_->audible = true;
        publishedMeasured_ = false;
        report({CastStatus::Kind::streaming, {}});
    }
    if (decision.raisedTarget) {
        publisher_.set(*decision.raisedTarget, now);
        publishedMeasured_ = false;
        publish(*decision.raisedTarget);
    }
    if (playing && measured && controller_.locked() && !controller_.recovering() &&
        controller_.rate() == 1.0 && tvRate_ == 1.0) {
        if (const auto value = publisher_.offer(*lag, now, !publishedMeasured_)) {
            publishedMeasured_ = true;
            if (castDebugEnabled()) std::fprintf(stderr, "[cast] publish lag=%.4f\n", *value);
            publish(*value);
        }
    }
}

void CastSender::finish(bool stopTV, std::function<void()> then) {
    if (markEnded()) {
        pumpState_->running = false;
        {
            std::unique_lock lock(pumpState_->exitLock);
            pumpState_->exitSignal.wait_for(lock,
                                            std::chrono::duration<double>(kPumpExitWaitSeconds),
                                            [&] { return pumpState_->exited; });
        }
        if (poll_) poll_->cancel();
        parts_.stream->stop();
        endChannel(stopTV);
    }
    if (then) then();
}

void CastSender::send(std::optional<sendspin::TrackInfo> meta) {
    const std::weak_ptr<CastSender> weak = selfAs<CastSender>();
    queue_.post([weak, meta = std::move(meta)] {
        auto self = weak.lock();
        if (!self) return;
        self->meta_ = meta;
        self->parts_.stream->setArtwork(meta ? meta->artworkPath : std::nullopt);
        self->sendMetadata();
    });
}

void CastSender::startPump() {
    struct Start {
        std::shared_ptr<PumpState> state;
        std::shared_ptr<CastStream> stream;
        Render render;
    };
    {
        std::lock_guard lock(pumpState_->exitLock);
        pumpState_->exited = false;
    }
    auto* start = new Start{pumpState_, parts_.stream, render_};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, kPumpStackBytes);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    const auto run = [](void* arg) -> void* {
        std::unique_ptr<Start> s(static_cast<Start*>(arg));
        pthread_setname_np(pthread_self(), "CastPump");
        std::vector<float> rendered(kPumpFrames * 2);
        std::vector<int16_t> pcm(kPumpFrames * 2);
        engine::PCM16Quantizer quantizer(0xC0FFEE);
        double deadline = dispatch::monotonicSeconds();
        int blocks = 0;
        while (s->state->running.load()) {
            // Always rendered, so the slot keeps its place in the ring.
            if (s->render)
                s->render(rendered.data(), kPumpFrames);
            else
                std::fill(rendered.begin(), rendered.end(), 0.0f);
            const bool audible = s->state->audible.load();
            if (audible)
                quantizer.convert(rendered.data(), pcm.data(), pcm.size());
            else
                std::fill(pcm.begin(), pcm.end(), int16_t{0});
            // The deadline is this block's place on the line the engine
            // renders the slot on (both advance by exactly one block).
            s->stream->write(reinterpret_cast<const uint8_t*>(pcm.data()),
                             pcm.size() * sizeof(int16_t), deadline);
            if (castDebugEnabled() && ++blocks % kPumpDebugEvery == 0) {
                double sum = 0;
                for (float v : rendered) sum += static_cast<double>(v) * v;
                std::fprintf(stderr, "[cast-pump] rendered rms=%.4f audible=%d\n",
                             std::sqrt(sum / static_cast<double>(rendered.size())),
                             audible ? 1 : 0);
            }
            deadline += kPumpRoundSeconds;
            const double wait = deadline - dispatch::monotonicSeconds();
            if (wait > 0) std::this_thread::sleep_for(std::chrono::duration<double>(wait));
            // Far behind: start again from the present rather than burst.
            if (wait < kPumpGiveUpBehindSeconds) deadline = dispatch::monotonicSeconds();
        }
        {
            std::lock_guard lock(s->state->exitLock);
            s->state->exited = true;
        }
        s->state->exitSignal.notify_all();
        return nullptr;
    };
    if (pthread_create(&thread, &attr, run, start) != 0) {
        delete start;
        std::lock_guard lock(pumpState_->exitLock);
        pumpState_->exited = true;
    }
    pthread_attr_destroy(&attr);
}

}  // namespace vt::cast
