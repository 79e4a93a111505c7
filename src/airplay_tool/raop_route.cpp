#include "airplay_tool/raop_route.h"

#include "airplay_tool/stream_flush.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

#include "airplay_tool/base64.h"
#include "airplay_tool/sdp.h"

namespace vt::airplay_tool {

namespace {

constexpr int kConnectTimeoutMs = 5'000;
constexpr int kAnswerTimeoutMs = 10'000;
constexpr int kTeardownTimeoutMs = 2'000;
constexpr int kFirstTimingWaitMs = 1'000;
constexpr int kFirstTimingPollMs = 5;
// Some AirPort receivers drop an RTSP connection that stays silent; one
// OPTIONS this often keeps it, as other senders do.
constexpr auto kKeepAliveInterval = std::chrono::seconds(25);
constexpr int kHttpOK = 200;
constexpr int kHttpUnauthorized = 401;
constexpr int kHttpBusy = 453;
// With a start time the first sample may be asked for this soon, no sooner.
constexpr int kMinStartLeadMs = 200;
// The receiver's Audio-Latency is the least it adds, but receivers keep a
// buffer of their own in front of the sound card (shairport-sync: 0.35 s to
// PulseAudio, 0.2 s to ALSA) and give up on timing below it. Below about
// 1.5 s shairport-sync on PulseAudio restarts its output at the start of a
// stream, dropping the first second or more; at 1.5 s it drops 10 ms.
constexpr int kShortestLeadMs = 1500;
// CLIAIRPLAY_RAOP_LEAD_MS sets another lead for receivers known to take one.
constexpr int kMinLeadOverrideMs = 250;
constexpr int kMaxLeadOverrideMs = 5000;

constexpr double kMinVolumeDb = -30.0;
constexpr double kMuteDb = -144.0;
constexpr int kMaxVolume = 100;
const char* const kUserAgent = "Vellatone/0.1";
constexpr size_t kAppleChallengeBytes = 16;

std::string randomHex(size_t digits) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::random_device random;
    std::string out;
    for (size_t i = 0; i < digits; ++i) out += kHex[random() & 15];
    return out;
}

int64_t parseInt64(const std::string& text) {
    int64_t value = 0;
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && ptr == text.data() + text.size() ? value : 0;
}

int shortestLeadMs() {
    const char* text = std::getenv("CLIAIRPLAY_RAOP_LEAD_MS");
    if (!text) return kShortestLeadMs;
    const int64_t value = parseInt64(text);
    return value > 0 ? static_cast<int>(
                           std::clamp<int64_t>(value, kMinLeadOverrideMs, kMaxLeadOverrideMs))
                     : kShortestLeadMs;
}

}  // namespace

bool wantsEncryption(const ToolOptions& options) {
    if (options.forceRaw) return false;
    if (options.forceEncrypt) return true;
    if (!options.txtEt.empty()) return listHas(options.txtEt, "1");
    return true;
}

bool sendsAppleChallenge(const ToolOptions& options) {
    std::string model = options.txtAm;
    std::transform(model.begin(), model.end(), model.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    // AirPort models are "AirPort10,115" and the like; "ShairportSync" is not one.
    return wantsEncryption(options) && model.rfind("airport", 0) == 0;
}

std::optional<int> parseVolume(const std::string& text) {
    if (text.empty()) return std::nullopt;
    double value = 0;
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr != text.data() + text.size() || !std::isfinite(value))
        return std::nullopt;
    return static_cast<int>(std::lround(std::clamp(value, 0.0, double{kMaxVolume})));
}

double volumeToDb(int volume) {
    if (volume <= 0) return kMuteDb;
    return kMinVolumeDb * (1.0 - std::min(volume, kMaxVolume) / double{kMaxVolume});
}

RaopRoute::RaopRoute(const ToolOptions& options, StatusWriter& status)
    : options_(options), status_(status), metadata_(metadataSupportFrom(options.txtMd)) {}

RaopRoute::~RaopRoute() {
    if (streamer_) streamer_->stop();
}

int RaopRoute::watchFd() const {
    return rtsp_ ? rtsp_->fd() : -1;
}

RtspRequest RaopRoute::makeRequest(const std::string& method) const {
    RtspRequest r;
    r.method = method;
    r.uri = url_;
    if (!session_.empty()) r.add("Session", session_);
    return r;
}

std::optional<RtspResponse> RaopRoute::setupStep(const RtspRequest& request) {
    RtspResult result = rtsp_->request(request, kAnswerTimeoutMs);
    if (!result.response) {
        status_.error(error_code::connectFailed, 0, request.method + ": " + result.error);
        return std::nullopt;
    }
    const RtspResponse& r = *result.response;
    if (r.status == kHttpOK) return r;
    if (r.status == kHttpUnauthorized) {
        if (result.triedPassword)
            status_.error(error_code::authFailed, r.status, "the receiver refused the password");
        else
            status_.error(error_code::authRequired, r.status, "the receiver asks for a password");
    } else if (r.status == kHttpBusy) {
        status_.error(error_code::connectFailed, r.status,
                      "the receiver is playing from another sender");
    } else {
        status_.error(
            error_code::connectFailed, r.status,
            request.method + " was answered " + std::to_string(r.status) + " " + r.reason);
    }
    return std::nullopt;
}

bool RaopRoute::connect() {
    status_.route("raop", "realtime", "ntp", false);
    if (options_.sampleRate != kRaopSampleRate) {
        status_.error(error_code::unsupported, 0, "AirPlay 1 receivers take 44100 Hz only");
        return false;
    }
    std::string error;
    rtsp_ = RtspClient::connect(options_.host, options_.effectivePort(), kConnectTimeoutMs, error);
    if (!rtsp_) {
        status_.error(error_code::connectFailed, 0, error);
        return false;
    }
    rtsp_->addCommonHeader("User-Agent", kUserAgent);
    rtsp_->addCommonHeader("Client-Instance", randomHex(16));
    if (!options_.dacpID.empty()) rtsp_->addCommonHeader("DACP-ID", options_.dacpID);
    rtsp_->addCommonHeader("Active-Remote", options_.activeRemote.empty()
                                                ? std::to_string(std::random_device{}())
                                                : options_.activeRemote);
    rtsp_->addCommonHeader("X-Apple-Client-Name", options_.name);
    rtsp_->setPassword(options_.password);

    AnnounceDescription sdp;
    if (wantsEncryption(options_)) {
        auto keys = makeSessionKeys();
        auto wrapped = keys ? wrapKeyForReceiver(keys->key) : std::nullopt;
        if (!wrapped) {
            status_.error(error_code::connectFailed, 0, "cannot make the session key");
            return false;
        }
        sdp.rsaAesKey = base64Unpadded(*wrapped);
        sdp.aesIV = base64Unpadded(keys->iv);
        encryptor_ = std::make_unique<PacketEncryptor>(keys->key, keys->iv);
    }
    RtpStreamer::Framing framing;
    if (encryptor_)
        framing.seal = [enc = encryptor_.get()](std::span<uint8_t> packet, size_t payloadBytes) {
            enc->encrypt(packet.subspan(kRtpHeaderBytes, payloadBytes));
            return kRtpHeaderBytes + payloadBytes;
        };
    streamer_ = std::make_unique<RtpStreamer>(status_, rtsp_->localIP(), std::move(framing));
    if (!streamer_->open(error)) {
        status_.error(error_code::connectFailed, 0, error);
        return false;
    }
    streamer_->startResponder();

    sdp.sessionID = std::to_string(std::random_device{}());
    sdp.senderIP = rtsp_->localIP();
    sdp.receiverIP = rtsp_->peerIP();
    url_ = "rtsp://" + rtsp_->localIP() + "/" + sdp.sessionID;

    RtspRequest options = makeRequest("OPTIONS");
    options.uri = "*";
    if (sendsAppleChallenge(options_)) {
        // The answer proves the receiver genuine; nothing here depends on it.
        std::array<uint8_t, kAppleChallengeBytes> challenge{};
        std::random_device random;
        for (uint8_t& b : challenge) b = static_cast<uint8_t>(random());
        options.add("Apple-Challenge", base64Unpadded(challenge));
    }
    if (!setupStep(options)) return false;

    RtspRequest announce = makeRequest("ANNOUNCE");
    announce.add("Content-Type", "application/sdp");
    announce.body = buildAnnounceSdp(sdp);
    if (!setupStep(announce)) return false;

    RtspRequest setup = makeRequest("SETUP");
    setup.add("Transport", "RTP/AVP/UDP;unicast;interleaved=0-1;mode=record;control_port=" +
                               std::to_string(streamer_->controlPort()) +
                               ";timing_port=" + std::to_string(streamer_->timingPort()));
    auto setupAnswer = setupStep(setup);
    if (!setupAnswer) return false;
    auto transport = setupAnswer->header("transport");
    auto ports = transport ? parseTransportHeader(*transport) : std::nullopt;
    if (!ports) {
        status_.error(error_code::connectFailed, setupAnswer->status,
                      "the receiver's SETUP answer names no usable ports");
        return false;
    }
    session_ = setupAnswer->header("session").value_or("1");
    if (auto semi = session_.find(';'); semi != std::string::npos) session_.resize(semi);
    streamer_->setReceiver(rtsp_->peerIP(), *ports);

    RtspRequest record = makeRequest("RECORD");
    record.add("Range", "npt=0-");
    record.add("RTP-Info", "seq=" + std::to_string(streamer_->firstSeq()) +
                               ";rtptime=" + std::to_string(streamer_->firstTimestamp()));
    auto recordAnswer = setupStep(record);
    if (!recordAnswer) return false;
    int64_t deviceMinFrames = kFixedLatencyFrames;
    if (auto latency = recordAnswer->header("audio-latency")) {
        const int64_t frames = parseInt64(*latency);
        if (frames > 0 && frames < int64_t{10} * kRaopSampleRate) deviceMinFrames = frames;
    }
    leadMs_ = std::max(
        shortestLeadMs(),
        static_cast<int>((deviceMinFrames * 1000 + kRaopSampleRate - 1) / kRaopSampleRate));
    if (options_.volume && !setVolume(*options_.volume)) return false;

    // The receiver asks for the time right after RECORD and ignores sync
    // packets until it has had an answer: "connected" waits for the first.
    for (int waited = 0; streamer_->timingExchanges() == 0 && waited < kFirstTimingWaitMs;
         waited += kFirstTimingPollMs)
        std::this_thread::sleep_for(std::chrono::milliseconds(kFirstTimingPollMs));
    status_.latency(leadMs_, deviceMinFrames, latencyFramesForLead(INT64_MAX), 0, leadMs_);
    status_.connected();
    status_.clockReadyNtp(streamer_->timingExchanges(), unixNowNs() / 1'000'000);
    return true;
}

bool RaopRoute::setParameter(const std::string& contentType, const std::string& body,
                             bool stamped) {
    RtspRequest r = makeRequest("SET_PARAMETER");
    r.add("Content-Type", contentType);
    if (stamped) r.add("RTP-Info", "rtptime=" + std::to_string(streamer_->rtpNow()));
    r.body = body;
    RtspResult result = rtsp_->request(r, kAnswerTimeoutMs);
    if (!result.response) {
        status_.error(error_code::disconnected, 0, "SET_PARAMETER: " + result.error);
        return false;
    }
    return true;
}

bool RaopRoute::setVolume(int volume) {
    char body[64];
    std::snprintf(body, sizeof body, "volume: %.6f\r\n", volumeToDb(volume));
    return setParameter("text/parameters", body, false);
}

void RaopRoute::sendMetadata(const Command& command) {
    const std::optional<uint32_t> heard =
        started_ ? std::optional<uint32_t>(streamer_->rtpNow()) : std::nullopt;
    for (const ParameterRequest& p : trackParameters(command, metadata_, heard))
        setParameter(p.contentType, p.body, p.stamped);
}

Outcome RaopRoute::handle(const Command& command) {
    if (auto volume = parseVolume(command.field("VOLUME")))
        if (!setVolume(*volume)) return Outcome::failed;
    const std::string& action = command.action;
    if (action == "STOP" || action == "DISCONNECT") return Outcome::stopRequested;
    if (action == "START") {
        if (started_) return Outcome::running;
        started_ = true;
        const int64_t requested = std::max<int64_t>(0, parseInt64(command.field("START_UNIX_MS")));
        StreamStart start;
        start.requestedUnixMs = requested;
        start.minLeadMs = requested > 0 ? kMinStartLeadMs : leadMs_;
        start.inputFd = 0;
        start.format = PcmFormat{options_.bitDepth, options_.channels};
        streamer_->begin(start);
        if (!command.field("ARTIST").empty() || !command.field("ALBUM").empty())
            sendMetadata(command);
        return Outcome::running;
    }
    if (action == "SENDMETA") sendMetadata(command);
    if (action == "FLUSH") return flush(false);
    if (action == "PAUSE" || action == "STANDBY") return flush(true);
    if (action == "PLAY") return play();
    return Outcome::running;
}

Outcome RaopRoute::flush(bool pause) {
    if (!started_ || (pause && paused_)) return Outcome::running;
    const Outcome outcome =
        sendFlush(*streamer_, *rtsp_, makeRequest("FLUSH"), kAnswerTimeoutMs, status_, pause);
    if (outcome == Outcome::running && pause) paused_ = true;
    return outcome;
}

Outcome RaopRoute::play() {
    if (!paused_) return Outcome::running;
    paused_ = false;
    streamer_->resume();
    status_.playing(true, streamer_->elapsedMs());
    return Outcome::running;
}

Outcome RaopRoute::poll() {
    if (rtsp_ &&
        std::chrono::steady_clock::now() - rtsp_->lastRequestTime() >= kKeepAliveInterval) {
        RtspRequest options = makeRequest("OPTIONS");
        options.uri = "*";
        RtspResult result = rtsp_->request(options, kAnswerTimeoutMs);
        if (!result.response) {
            status_.error(error_code::disconnected, 0, "OPTIONS: " + result.error);
            return Outcome::failed;
        }
    }
    if (rtsp_ && !rtsp_->drainUnsolicited()) {
        status_.error(error_code::disconnected, 0, "the receiver closed the connection");
        return Outcome::failed;
    }
    if (auto failure = streamer_ ? streamer_->failure() : std::nullopt) {
        status_.error(error_code::disconnected, 0, *failure);
        return Outcome::failed;
    }
    return Outcome::running;
}

void RaopRoute::close() {
    if (closed_) return;
    closed_ = true;
    if (streamer_) streamer_->stop();
    if (rtsp_) {
        RtspRequest teardown = makeRequest("TEARDOWN");
        rtsp_->request(teardown, kTeardownTimeoutMs);
    }
    status_.stopped();
}

}  // namespace vt::airplay_tool
