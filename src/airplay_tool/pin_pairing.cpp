#include "airplay_tool/pin_pairing.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <string>

#include "airplay_tool/pairing_exchange.h"

namespace vt::airplay_tool {

namespace {

constexpr int kExitPaired = 0;
constexpr int kExitFailed = 1;
constexpr size_t kMaxPinLineBytes = 256;

int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int environmentMs(const char* name, int fallback) {
    const char* text = std::getenv(name);
    if (!text) return fallback;
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || value <= 0 || value > 24 * 3600 * 1000) return fallback;
    return static_cast<int>(value);
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

std::string trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// Lines typed on standard input, one at a time, each waited for until a deadline.
class PinReader {
  public:
    explicit PinReader(int fd) : fd_(fd) {}

    enum class Result { line, ended, timedOut };

    Result next(int64_t deadlineMs, std::string& line) {
        for (;;) {
            if (const size_t end = pending_.find('\n'); end != std::string::npos) {
                line = pending_.substr(0, end);
                pending_.erase(0, end + 1);
                return Result::line;
            }
            if (pending_.size() > kMaxPinLineBytes) pending_.clear();
            const int64_t left = deadlineMs - nowMs();
            if (left <= 0) return Result::timedOut;
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
            char buf[kMaxPinLineBytes];
            const ssize_t n = read(fd_, buf, sizeof buf);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                if (pending_.empty()) return Result::ended;
                line.swap(pending_);
                return Result::line;
            }
            pending_.append(buf, static_cast<size_t>(n));
        }
    }

  private:
    int fd_;
    std::string pending_;
};

void report(StatusWriter& status, const PairingError& error) {
    const bool refusedUs = error.http == 403;
    status.error(
        refusedUs ? error_code::connectFailed : error_code::authFailed, error.http,
        refusedUs ? "the receiver rejected this computer (HTTP 403)" : error.failure.detail);
}

}  // namespace

int runPinPairing(const ToolOptions& options, StatusWriter& status, int pinFd) {
    if (options.dacpID.empty()) {
        status.error(error_code::badArguments, 0,
                     "--pair-setup needs --dacp, the id to pair under");
        return kExitFailed;
    }
    const int requestMs = environmentMs("CLIAIRPLAY_PAIR_TIMEOUT_MS", kDefaultPairRequestMs);
    const int64_t deadline =
        nowMs() + environmentMs("CLIAIRPLAY_SETUP_TIMEOUT_MS", kDefaultPinWaitMs);

    std::string error;
    auto rtsp = RtspClient::connect(options.host, options.effectivePort(), requestMs, error);
    if (!rtsp) {
        status.error(error_code::connectFailed, 0, error);
        return kExitFailed;
    }
    if (options.http) rtsp->setVersion(kHttpVersion);
    rtsp->addCommonHeader("User-Agent", "AirPlay/409.16");
    rtsp->addCommonHeader("X-Apple-Client-Name", options.name);

    // The identity is made once: every try signs with the same key.
    const hap::ControllerIdentity identity = hap::newControllerIdentity(upper(options.dacpID));
    PairingExchange exchange(*rtsp, requestMs);
    PinReader pins(pinFd);
    for (;;) {
        if (!options.http) {
            if (auto refused = exchange.startPinDisplay()) {
                report(status, *refused);
                return kExitFailed;
            }
        }
        status.say("Please enter the PIN shown on " + options.host + ":");
        std::string pin;
        switch (pins.next(deadline, pin)) {
            case PinReader::Result::line:
                break;
            case PinReader::Result::ended:
                status.error(error_code::authRequired, 0, "no PIN was entered");
                return kExitFailed;
            case PinReader::Result::timedOut:
                status.error(error_code::authRequired, 0, "no PIN was entered in time");
                return kExitFailed;
        }
        pin = trimmed(pin);
        if (pin.empty()) continue;
        auto paired = exchange.pairWithPin(pin, identity);
        if (paired.value) {
            status.say("CREDENTIALS: " + paired.value->toHex());
            return kExitPaired;
        }
        report(status, paired.error);
        if (paired.error.failure.kind != hap::PairingFailure::Kind::wrongCode) return kExitFailed;
    }
}

}  // namespace vt::airplay_tool
