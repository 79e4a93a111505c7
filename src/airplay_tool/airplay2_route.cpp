#include "airplay_tool/airplay2_route.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "airplay_tool/hap/channel_cipher.h"

namespace vt::airplay_tool {

namespace {

constexpr int kDefaultSetupTimeoutMs = 20000;
constexpr int kHttpOk = 200;
// What an AirPlay 2 receiver answers to anything before it is paired with.
constexpr int kHttpAuthorizationRequired = 470;
// The code of transient pairing when the receiver has no password.
constexpr const char* kTransientCode = "3939";
constexpr const char* kUserAgent = "AirPlay/409.16";

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

}  // namespace

AirPlay2Route::AirPlay2Route(const ToolOptions& options, StatusWriter& status)
    : options_(options), status_(status) {}

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
    status_.error(error_code::unsupported, 0,
                  "paired, but the AirPlay 2 session is not available in this build");
    return false;
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
    rtsp_->encrypt(hap::controlChannelKeys(*secret.value));
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
    return command.action == "STOP" ? Outcome::stopRequested : Outcome::running;
}

Outcome AirPlay2Route::poll() {
    return Outcome::running;
}

int AirPlay2Route::watchFd() const {
    return rtsp_ ? rtsp_->fd() : -1;
}

void AirPlay2Route::close() {
    if (closed_) return;
    closed_ = true;
    status_.stopped();
}

}  // namespace vt::airplay_tool
