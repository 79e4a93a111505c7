#include "sendspin/stream.h"

#include <pthread.h>

#include <chrono>
#include <vector>

#include "engine/pcm16_quantizer.h"
#include "sendspin/protocol.h"

namespace vt::sendspin {

namespace {

constexpr size_t kFrames = SendspinProtocol::framesPerChunk;
constexpr double kRoundSeconds = 0.01;
constexpr double kGiveUpBehindSeconds = -0.5;
constexpr size_t kPumpStackBytes = 512 * 1024;

struct PumpStart {
    std::function<void()> body;
    std::string name;
};

void* runPump(void* arg) {
    std::unique_ptr<PumpStart> start(static_cast<PumpStart*>(arg));
    pthread_setname_np(pthread_self(), start->name.substr(0, 15).c_str());
    start->body();
    return nullptr;
}

}  // namespace

SendspinStream::SendspinStream(net::SendspinTransport& transport, double leadMs,
                               std::string threadName, Render render,
                               std::shared_ptr<PumpClock> clock)
    : transport_(transport),
      leadMs_(leadMs),
      threadName_(std::move(threadName)),
      clock_(clock ? std::move(clock) : std::make_shared<MonotonicPumpClock>()),
      state_(std::make_shared<State>()) {
    state_->render = std::move(render);
}

SendspinStream::~SendspinStream() {
    stopPump();
}

void SendspinStream::setRender(Render render) {
    std::lock_guard guard(state_->lock);
    state_->render = std::move(render);
}

void SendspinStream::begin(int64_t to) {
    transport_.sendText(
        SendspinProtocol::streamStart(SendspinProtocol::sampleRate, SendspinProtocol::channels,
                                      SendspinProtocol::bitDepth, clock_->nowUs()),
        to);
    std::shared_ptr<Exit> exited;
    int64_t run = 0;
    {
        std::lock_guard guard(state_->lock);
        state_->target = to;
        ++state_->epoch;
        if (state_->pumping) return;
        state_->pumping = true;
        run = ++state_->pumpRun;
        exited = std::make_shared<Exit>();
        state_->pumpExited = exited;
    }
    auto* start = new PumpStart{[state = state_, run, exited, transport = &transport_,
                                 clock = clock_, leadUs = static_cast<int64_t>(leadMs_ * 1000)] {
                                    pump(state, run, exited, transport, clock, leadUs);
                                },
                                threadName_};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, kPumpStackBytes);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    if (pthread_create(&thread, &attr, runPump, start) != 0) {
        delete start;
        std::lock_guard guard(state_->lock);
        state_->pumping = false;
        state_->target.reset();
    }
    pthread_attr_destroy(&attr);
}

void SendspinStream::stopPump() {
    std::shared_ptr<Exit> exited;
    {
        std::lock_guard guard(state_->lock);
        state_->pumping = false;
        state_->target.reset();
        exited = std::move(state_->pumpExited);
    }
    if (!exited) return;
    // A pump stuck in its render callback is left to end by itself.
    std::unique_lock guard(exited->lock);
    exited->done.wait_for(guard, std::chrono::milliseconds(50), [&] { return exited->signalled; });
}

void SendspinStream::pump(std::shared_ptr<State> state, int64_t run, std::shared_ptr<Exit> exited,
                          net::SendspinTransport* transport, std::shared_ptr<PumpClock> clock,
                          int64_t leadUs) {
    std::vector<float> rendered(kFrames * 2);
    std::vector<int16_t> pcm(kFrames * 2);
    engine::PCM16Quantizer quantizer(0x9E3779B97F4A7C15ULL);
    double deadline = clock->nowSeconds();
    int64_t lastEpoch = -1;
    int64_t framesSent = 0;
    bool firstFrame = true;
    int64_t baseUs = 0;

    std::unique_lock guard(state->lock);
    while (state->pumping && state->pumpRun == run) {
        Render render = state->render;
        guard.unlock();
        if (render) {
            render(rendered.data(), kFrames);
        } else {
            std::fill(rendered.begin(), rendered.end(), 0.0f);
        }
        guard.lock();
        if (!state->pumping || state->pumpRun != run) break;
        const std::optional<int64_t> target = state->target;
        const int64_t epoch = state->epoch;
        guard.unlock();

        if (target) {
            if (epoch != lastEpoch) {
                framesSent = 0;
                baseUs = 0;
                firstFrame = true;
            }
            quantizer.convert(rendered.data(), pcm.data(), pcm.size());
            const int64_t now = clock->nowUs();
            if (firstFrame) {
                baseUs = now;
                firstFrame = false;
            }
            const int64_t playAt =
                baseUs + framesSent * 1'000'000 / SendspinProtocol::sampleRate + leadUs;
            lastEpoch = epoch;
            framesSent += static_cast<int64_t>(kFrames);
            transport->sendBinary(SendspinProtocol::audioChunk(playAt, pcm), *target);
        }

        deadline += kRoundSeconds;
        const double wait = deadline - clock->nowSeconds();
        if (wait > 0) clock->sleepFor(wait);
        if (wait < kGiveUpBehindSeconds) {
            // Far behind: restart the timeline from the present rather than burst to catch up.
            deadline = clock->nowSeconds();
            framesSent = 0;
            baseUs = 0;
            firstFrame = true;
        }
        guard.lock();
    }
    if (guard.owns_lock()) guard.unlock();
    std::lock_guard exitGuard(exited->lock);
    exited->signalled = true;
    exited->done.notify_all();
}

void SendspinStream::setMetadata(std::optional<TrackInfo> meta) {
    std::lock_guard guard(state_->lock);
    state_->meta = std::move(meta);
}

void SendspinStream::setArtworkEncoder(ArtworkEncoder encoder) {
    std::lock_guard guard(state_->lock);
    state_->artworkEncoder = std::move(encoder);
    state_->artworkCache.reset();
}

std::optional<std::string> SendspinStream::artworkDataURL(const std::optional<std::string>& path) {
    if (!path) return std::nullopt;
    ArtworkEncoder encoder;
    {
        std::lock_guard guard(state_->lock);
        if (state_->artworkCache && state_->artworkCache->first == *path) {
            return state_->artworkCache->second;
        }
        encoder = state_->artworkEncoder;
    }
    std::optional<std::string> url = encoder ? encoder(*path) : std::nullopt;
    std::lock_guard guard(state_->lock);
    state_->artworkCache = std::pair{*path, url};
    return url;
}

void SendspinStream::sendMetadata(int64_t to) {
    std::optional<TrackInfo> meta;
    {
        std::lock_guard guard(state_->lock);
        meta = state_->meta;
    }
    if (!meta) {
        transport_.sendText(
            SendspinProtocol::serverState("Vellatone", "", "", std::nullopt, clock_->nowUs()), to);
        return;
    }
    const std::optional<std::string> artwork = artworkDataURL(meta->artworkPath);
    transport_.sendText(SendspinProtocol::serverState(meta->title, meta->artist, meta->album,
                                                      artwork, clock_->nowUs()),
                        to);
}

bool SendspinStream::answerClock(std::string_view text, int64_t from, int64_t receivedUs,
                                 net::SendspinTransport& via) {
    const auto message = SendspinProtocol::parse(text);
    if (!message) return false;
    const auto* time = std::get_if<SendspinProtocol::ClientTime>(&*message);
    if (time == nullptr) return false;
    const int64_t clientTransmitted = time->clientTransmitted;
    via.sendTextBuilding(
        [clientTransmitted, receivedUs] {
            return SendspinProtocol::serverTime(clientTransmitted, receivedUs,
                                                SendspinProtocol::nowUs());
        },
        from);
    return true;
}

}  // namespace vt::sendspin
