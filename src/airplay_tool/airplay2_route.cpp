#include "airplay_tool/airplay2_route.h"

#include "airplay_tool/stream_flush.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "airplay_tool/ap2_rtp_packets.h"
#include "airplay_tool/hap/channel_cipher.h"
#include "airplay_tool/hap/hap_crypto.h"
#include "airplay_tool/raop_route.h"
#include "airplay_tool/session_plists.h"
#include "airplay_tool/track_metadata.h"

namespace vt::airplay_tool {

namespace {

constexpr int kDefaultSetupTimeoutMs = 20000;
constexpr int kHttpOk = 200;
// What an AirPlay 2 receiver answers to anything before it is paired with.
constexpr int kHttpAuthorizationRequired = 470;
// The code of transient pairing when the receiver has no password.
constexpr const char* kTransientCode = "3939";
constexpr const char* kUserAgent = "AirPlay/409.16";
constexpr int kTeardownTimeoutMs = 2'000;
// Receivers drop a session whose control connection stays silent.
constexpr auto kFeedbackInterval = std::chrono::seconds(2);
// With a start time the first sample may be asked for this soon, no sooner.
constexpr int kMinStartLeadMs = 250;
// The latency bounds the stream SETUP offers: the receiver's fixed part up
// to 2 s. What the receiver answers is the device's own, if it says.
constexpr uint32_t kOfferedLatencyMinFrames = 11'025;
constexpr uint32_t kOfferedLatencyMaxFrames = 88'200;
// What a receiver that gives no bounds is taken to hold: 1.75 s.
constexpr int64_t kAssumedDeviceLatencyFrames = 77'175;
constexpr size_t kDeviceIdOctets = 6;

int setupTimeoutMs() {
    const char* text = std::getenv("CLIAIRPLAY_SETUP_TIMEOUT_MS");
    if (!text) return kDefaultSetupTimeoutMs;
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || value <= 0 || value > 600000) return kDefaultSetupTimeoutMs;
    return static_cast<int>(value);
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

int64_t parseInt64(const std::string& text) {
    int64_t value = 0;
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && ptr == text.data() + text.size() ? value : 0;
}

std::string randomUuid() {
    const hap::Bytes b = hap::randomBytes(16);
    char text[37];
    std::snprintf(text, sizeof text,
                  "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0],
                  b[1], b[2], b[3], b[4], b[5], (b[6] & 0x0f) | 0x40, b[7], (b[8] & 0x3f) | 0x80,
                  b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
    return text;
}

bool followsReceiverClock() {
    const char* follow = std::getenv("CLIAIRPLAY_PTP_FOLLOW");
    return follow && std::string_view(follow) == "1";
}

}  // namespace

std::string deviceIdFromDacp(const std::string& dacpID) {
    // The DACP id's hex digits, as the six octets of a MAC address.
    std::string digits;
    for (char c : upper(dacpID))
        if (std::isxdigit(static_cast<unsigned char>(c))) digits += c;
    digits.resize(2 * kDeviceIdOctets, '0');
    std::string out;
    for (size_t i = 0; i < kDeviceIdOctets; ++i) {
        if (i) out += ':';
        out += digits.substr(2 * i, 2);
    }
    return out;
}

namespace {}  // namespace

AirPlay2Route::AirPlay2Route(const ToolOptions& options, StatusWriter& status)
    : options_(options), status_(status) {}

AirPlay2Route::~AirPlay2Route() {
    // Its sync packets read the session's clock.
    if (streamer_) streamer_->stop();
}

bool AirPlay2Route::connect() {
    const int timeoutMs = setupTimeoutMs();
    std::string error;
    rtsp_ = RtspClient::connect(options_.host, options_.effectivePort(), timeoutMs, error);
    if (!rtsp_) {
        status_.error(error_code::connectFailed, 0, error);
        return false;
    }
    rtsp_->addCommonHeader("User-Agent", kUserAgent);
    if (!options_.dacpID.empty()) rtsp_->addCommonHeader("DACP-ID", options_.dacpID);
    if (!options_.activeRemote.empty())
        rtsp_->addCommonHeader("Active-Remote", options_.activeRemote);

    RtspRequest info;
    info.method = "GET";
    info.uri = "/info";
    RtspResult answer = rtsp_->request(info, timeoutMs);
    if (!answer.response) {
        status_.error(error_code::connectFailed, 0, answer.error);
        return false;
    }
    const int http = answer.response->status;
    if (http == kHttpAuthorizationRequired) {
        // Some receivers say nothing of themselves before pairing.
    } else if (http != kHttpOk) {
        status_.error(error_code::connectFailed, http,
                      "the receiver answered GET /info with HTTP " + std::to_string(http));
        return false;
    } else {
        info_ = parseReceiverInfo(answer.response->body);
    }
    if (!pair()) return false;
    return setUpSession();
}

RtspRequest AirPlay2Route::makeRequest(const std::string& method, const std::string& body) const {
    RtspRequest r;
    r.method = method;
    r.uri = url_;
    if (!body.empty()) {
        r.add("Content-Type", kBinaryPlistType);
        r.body = body;
    }
    return r;
}

std::optional<RtspResponse> AirPlay2Route::sessionStep(const RtspRequest& request) {
    RtspResult result = rtsp_->request(request, setupTimeoutMs());
    if (!result.response) {
        status_.error(error_code::connectFailed, 0, request.method + ": " + result.error);
        return std::nullopt;
    }
    if (result.response->status != kHttpOk) {
        status_.error(error_code::connectFailed, result.response->status,
                      request.method + " was answered " + std::to_string(result.response->status) +
                          " " + result.response->reason);
        return std::nullopt;
    }
    return result.response;
}

RtpStreamer::Framing AirPlay2Route::framing() const {
    RtpStreamer::Framing f;
    // One counter per audio key: a nonce never comes twice, resends being
    // the very bytes sent before.
    f.seal = [key = streamKey_, counter = uint64_t{0}](std::span<uint8_t> packet,
                                                       size_t payloadBytes) mutable {
        return sealAudioPacket(key, packet, payloadBytes, counter++);
    };
    f.reportsReanchor = true;
    if (clock_->source() == ptp::SessionClock::Source::none) return f;
    f.waitsForTiming = false;
    f.ssrc = 0;
    f.sync = [clock = clock_.get()](const StreamTimeline& timeline, int64_t nowNs, bool first) {
        // The frame heard now, at its PTP time; the frames after it, up to
        // what goes out now, are what the receiver holds.
        const int64_t heard = timeline.frameHeardAt(nowNs);
        const ptp::SessionClock::Reading at = clock->read(timeline.playUnixNs(heard));
        const auto packet = makePtpSyncPacket(first, timeline.rtpOf(heard), at.ptpNs,
                                              timeline.rtpOf(heard + timeline.latencyFrames()),
                                              static_cast<uint64_t>(at.clockNumber));
        return std::vector<uint8_t>(packet.begin(), packet.end());
    };
    return f;
}

bool AirPlay2Route::setUpSession() {
    const std::string ourAddress =
        options_.publishIP.empty() ? rtsp_->localIP() : options_.publishIP;
    ptp::SessionClock::Options clockOptions;
    clockOptions.useShared = options_.ptpShared;
    clockOptions.receiver = rtsp_->peerIP();
    clockOptions.ourAddress = ourAddress;
    clockOptions.deviceID = options_.dacpID;
    clockOptions.follow = followsReceiverClock();
    clock_ = std::make_unique<ptp::SessionClock>(clockOptions, status_);
    const bool ptpTiming =
        options_.timing != "ntp" && clock_->attach() != ptp::SessionClock::Source::none;
    status_.route(protocolName(options_.protocol), "realtime", ptpTiming ? "ptp" : "ntp", false);

    streamKey_ = hap::randomBytes(kStreamKeyBytes);
    streamer_ = std::make_unique<RtpStreamer>(status_, rtsp_->localIP(), framing());
    std::string error;
    if (!streamer_->open(error)) {
        status_.error(error_code::connectFailed, 0, error);
        return false;
    }
    // Resend requests come to it; timing requests too when there is no PTP.
    streamer_->startResponder();
    url_ = "rtsp://" + rtsp_->localIP() + "/" + std::to_string(std::random_device{}());

    SessionSetup session;
    session.deviceID = deviceIdFromDacp(options_.dacpID);
    session.sessionUUID = randomUuid();
    session.groupUUID = randomUuid();
    session.name = options_.name;
    if (ptpTiming)
        session.ptpPeer = clock_->peerInfo();
    else
        session.ntpTimingPort = streamer_->timingPort();
    auto sessionAnswer = sessionStep(makeRequest("SETUP", buildSessionSetup(session)));
    if (!sessionAnswer) return false;
    const auto sessionReply = parseSessionSetupReply(sessionAnswer->body);
    if (!sessionReply) {
        status_.error(error_code::connectFailed, kHttpOk,
                      "the receiver's session SETUP answer names no event port");
        return false;
    }
    events_ =
        RtspClient::connect(rtsp_->peerIP(), sessionReply->eventPort, setupTimeoutMs(), error);
    if (!events_) {
        status_.error(error_code::connectFailed, 0, "the receiver's event port: " + error);
        return false;
    }
    events_->encrypt(hap::eventChannelKeys(secret_));

    // Before the stream SETUP: some receivers play silence otherwise.
    if (!sessionStep(makeRequest("RECORD"))) return false;
    if (ptpTiming && !sessionStep(makeRequest("SETPEERS", buildSetPeers(clock_->peerList()))))
        return false;

    StreamSetup stream;
    stream.streamKey = streamKey_;
    stream.controlPort = streamer_->controlPort();
    stream.connectionID = (uint64_t{std::random_device{}()} << 32) | std::random_device{}();
    stream.latencyMinFrames = kOfferedLatencyMinFrames;
    stream.latencyMaxFrames = kOfferedLatencyMaxFrames;
    auto streamAnswer = sessionStep(makeRequest("SETUP", buildStreamSetup(stream)));
    if (!streamAnswer) return false;
    const auto streamReply = parseStreamSetupReply(streamAnswer->body);
    if (!streamReply) {
        status_.error(error_code::connectFailed, kHttpOk,
                      "the receiver's stream SETUP answer names no usable ports");
        return false;
    }
    streamer_->setReceiver(rtsp_->peerIP(),
                           ReceiverPorts{streamReply->dataPort, streamReply->controlPort, 0});
    // Some receivers take the volume only once the stream exists.
    if (options_.volume && !setVolume(*options_.volume)) return false;

    const auto deviceFrames = [](const std::optional<uint64_t>& frames) {
        return frames ? static_cast<int64_t>(*frames) : kAssumedDeviceLatencyFrames;
    };
    status_.latency(options_.latencyMs, deviceFrames(streamReply->latencyMinFrames),
                    deviceFrames(streamReply->latencyMaxFrames), 0, options_.latencyMs);
    status_.connected();
    clock_->reportReadiness();
    lastFeedback_ = std::chrono::steady_clock::now();
    return true;
}

void AirPlay2Route::sendMetadata(const Command& command) {
    const std::optional<uint32_t> heard =
        started_ ? std::optional<uint32_t>(streamer_->rtpNow()) : std::nullopt;
    for (const ParameterRequest& p : trackParameters(command, MetadataSupport{}, heard)) {
        RtspRequest r = makeRequest("SET_PARAMETER");
        r.add("Content-Type", p.contentType);
        if (p.stamped) r.add("RTP-Info", "rtptime=" + std::to_string(streamer_->rtpNow()));
        r.body = p.body;
        // A receiver that takes no metadata answers and ignores it.
        rtsp_->request(r, setupTimeoutMs());
    }
}

bool AirPlay2Route::setVolume(int volume) {
    char body[64];
    std::snprintf(body, sizeof body, "volume: %.6f\r\n", volumeToDb(volume));
    RtspRequest r = makeRequest("SET_PARAMETER");
    r.add("Content-Type", "text/parameters");
    r.body = body;
    RtspResult result = rtsp_->request(r, setupTimeoutMs());
    if (!result.response) {
        status_.error(error_code::disconnected, 0, "SET_PARAMETER: " + result.error);
        return false;
    }
    return true;
}

bool AirPlay2Route::pair() {
    PairingExchange exchange(*rtsp_, setupTimeoutMs());
    const bool withCredentials =
        options_.protocol == Protocol::airplay2 && !options_.authKey.empty();
    PairingOutcome<hap::Bytes> secret;
    if (withCredentials) {
        auto credentials = hap::PairingCredentials::fromHex(options_.authKey);
        if (!credentials) {
            status_.error(error_code::authRequired, 0,
                          "the credentials given with --auth are unreadable");
            return false;
        }
        secret = exchange.verify(*credentials, upper(options_.dacpID));
    } else {
        secret =
            exchange.pairTransient(options_.password.empty() ? kTransientCode : options_.password);
    }
    if (!secret.value) {
        reportPairingError(secret.error, withCredentials);
        return false;
    }
    secret_ = *secret.value;
    rtsp_->encrypt(hap::controlChannelKeys(secret_));
    return true;
}

void AirPlay2Route::reportPairingError(const PairingError& error, bool withCredentials) {
    using Kind = hap::PairingFailure::Kind;
    const std::string& detail = error.failure.detail;
    if (error.http == kHttpAuthorizationRequired ||
        (info_ && info_->wantsPin() && !withCredentials)) {
        status_.error(error_code::authRequired, error.http,
                      "the receiver wants pairing with its PIN");
        return;
    }
    if (error.http != 0 && error.http != kHttpOk) {
        status_.error(error_code::connectFailed, error.http, detail);
        return;
    }
    if (withCredentials) {
        // The receiver forgot us, or is not the one we paired with.
        status_.error(error_code::authRequired, 0, detail);
        return;
    }
    if (error.failure.kind == Kind::wrongCode) {
        // Transient pairing's code is the receiver's password when it has
        // one: without ours, or with a wrong one, the password is wanted.
        status_.error(error_code::authFailed, 0,
                      options_.password.empty() ? "the receiver wants its password"
                                                : "the receiver refused the password");
        return;
    }
    status_.error(error_code::connectFailed, 0, detail);
}

Outcome AirPlay2Route::handle(const Command& command) {
    if (auto volume = parseVolume(command.field("VOLUME")); volume && streamer_)
        if (!setVolume(*volume)) return Outcome::failed;
    const std::string& action = command.action;
    if (action == "STOP" || action == "DISCONNECT") return Outcome::stopRequested;
    if (!streamer_) return Outcome::running;
    if (action == "START" && !started_) {
        started_ = true;
        const int64_t requested = std::max<int64_t>(0, parseInt64(command.field("START_UNIX_MS")));
        StreamStart start;
        start.requestedUnixMs = requested;
        start.minLeadMs = requested > 0 ? kMinStartLeadMs : options_.latencyMs;
        start.inputFd = 0;
        start.format = PcmFormat{options_.bitDepth, options_.channels};
        streamer_->begin(start);
        if (!command.field("ARTIST").empty() || !command.field("ALBUM").empty())
            sendMetadata(command);
    }
    if (action == "SENDMETA") sendMetadata(command);
    if (action == "FLUSH") return flush(false);
    if (action == "PAUSE" || action == "STANDBY") return flush(true);
    if (action == "PLAY" && paused_) {
        paused_ = false;
        streamer_->resume();
        status_.playing(true, streamer_->elapsedMs());
    }
    return Outcome::running;
}

Outcome AirPlay2Route::flush(bool pause) {
    if (!started_ || (pause && paused_)) return Outcome::running;
    const Outcome outcome =
        sendFlush(*streamer_, *rtsp_, makeRequest("FLUSH"), setupTimeoutMs(), status_, pause);
    if (outcome == Outcome::running && pause) paused_ = true;
    return outcome;
}

Outcome AirPlay2Route::poll() {
    if (events_ && !answerEvents()) events_.reset();
    if (!streamer_) return Outcome::running;
    if (std::chrono::steady_clock::now() - lastFeedback_ >= kFeedbackInterval) {
        lastFeedback_ = std::chrono::steady_clock::now();
        RtspRequest feedback = makeRequest("POST");
        feedback.uri = "/feedback";
        RtspResult result = rtsp_->request(feedback, setupTimeoutMs());
        if (!result.response) {
            status_.error(error_code::disconnected, 0, "POST /feedback: " + result.error);
            return Outcome::failed;
        }
    }
    if (!rtsp_->drainUnsolicited()) {
        status_.error(error_code::disconnected, 0, "the receiver closed the connection");
        return Outcome::failed;
    }
    if (auto failure = streamer_->failure()) {
        status_.error(error_code::disconnected, 0, *failure);
        return Outcome::failed;
    }
    return Outcome::running;
}

int AirPlay2Route::watchFd() const {
    return rtsp_ ? rtsp_->fd() : -1;
}

int AirPlay2Route::eventFd() const {
    return events_ ? events_->fd() : -1;
}

bool AirPlay2Route::answerEvents() {
    std::string plain;
    if (!events_->drainUnsolicited(plain)) return false;
    std::string answers;
    // Bytes that are not requests are left unanswered; the session goes on.
    if (plain.empty() || !eventRequests_.append(plain, answers) || answers.empty()) return true;
    return events_->sendUnasked(answers);
}

void AirPlay2Route::close() {
    if (closed_) return;
    closed_ = true;
    if (streamer_) {
        streamer_->stop();
        rtsp_->request(makeRequest("TEARDOWN"), kTeardownTimeoutMs);
    }
    status_.stopped();
}

}  // namespace vt::airplay_tool
