#include "net/http_request.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cmath>
#include <vector>

#include "net/http_response.h"
#include "net/text.h"

namespace vt::net {

namespace {

std::vector<std::string_view> splitAll(std::string_view text, std::string_view sep) {
    std::vector<std::string_view> pieces;
    size_t start = 0;
    while (true) {
        const size_t at = text.find(sep, start);
        if (at == std::string_view::npos) {
            pieces.push_back(text.substr(start));
            return pieces;
        }
        pieces.push_back(text.substr(start, at - start));
        start = at + sep.size();
    }
}

std::string decodedOrAsIs(std::string_view text) {
    if (auto decoded = percentDecode(text)) return *decoded;
    return std::string(text);
}

void parseQuery(std::string_view text, std::map<std::string, std::string>& query) {
    for (std::string_view piece : splitAll(text, "&")) {
        const size_t eq = piece.find('=');
        const std::string_view key = piece.substr(0, eq);
        if (key.empty()) continue;
        const std::string_view value =
            eq == std::string_view::npos ? std::string_view{} : piece.substr(eq + 1);
        query[decodedOrAsIs(key)] = decodedOrAsIs(value);
    }
}

bool isSingleValued(std::string_view key) {
    return key == "host" || key == "origin" || key == "upgrade" || key == "sec-websocket-key" ||
           key == "sec-websocket-version" || key == "content-length";
}

}  // namespace

bool HTTPRequest::isWebSocketUpgrade() const {
    const auto upgrade = headers.find("upgrade");
    return upgrade != headers.end() && toLowerAscii(upgrade->second) == "websocket" &&
           headers.contains("sec-websocket-key");
}

std::optional<HTTPRequest> HTTPRequest::parse(std::string_view text) {
    if (!isValidUtf8(text)) return std::nullopt;
    const std::vector<std::string_view> lines = splitAll(text, "\r\n");

    std::vector<std::string_view> words;
    std::string_view first = lines.front();
    while (!first.empty()) {
        const size_t start = first.find_first_not_of(" \t");
        if (start == std::string_view::npos) break;
        first.remove_prefix(start);
        const size_t end = first.find_first_of(" \t");
        words.push_back(first.substr(0, end));
        if (end == std::string_view::npos) break;
        first.remove_prefix(end);
    }
    if (words.size() < 2) return std::nullopt;

    HTTPRequest request;
    request.method = std::string(words[0]);
    const std::string_view target = words[1];
    const size_t question = target.find('?');
    request.path = std::string(target.substr(0, question));
    if (question != std::string_view::npos) parseQuery(target.substr(question + 1), request.query);

    for (size_t i = 1; i < lines.size(); ++i) {
        const size_t colon = lines[i].find(':');
        if (colon == std::string_view::npos) continue;
        std::string key = toLowerAscii(lines[i].substr(0, colon));
        std::string value(trimBlanks(lines[i].substr(colon + 1)));
        const auto [at, added] = request.headers.try_emplace(key, value);
        if (added) continue;
        // Two answers to a question asked once: which one a check read and
        // which one a later step obeys must never differ (RFC 9110, 9112).
        if (isSingleValued(key)) return std::nullopt;
        at->second = std::move(value);
    }
    return request;
}

size_t HTTPHeadBuffer::nextReadSize() const {
    const size_t room = kMaxHeadBytes + 1 - std::min(buffer_.size(), kMaxHeadBytes + 1);
    return std::min(kHeadReadChunk, room);
}

HTTPHeadBuffer::State HTTPHeadBuffer::append(std::string_view bytes) {
    buffer_.append(bytes);
    // Resume the search a little before the new bytes: the terminator may straddle reads.
    const size_t from = searchedUpTo_ >= 3 ? searchedUpTo_ - 3 : 0;
    const size_t at = buffer_.find("\r\n\r\n", from);
    if (at != std::string::npos) {
        headLength_ = at;
        return State::complete;
    }
    searchedUpTo_ = buffer_.size();
    return buffer_.size() > kMaxHeadBytes ? State::tooLarge : State::needMore;
}

HeadReadResult readHTTPRequest(int fd, double deadlineSeconds, const SecondsClock& clock) {
    HeadReadResult result;
    const double deadline = clock() + deadlineSeconds;
    HTTPHeadBuffer head;
    char chunk[kHeadReadChunk];
    while (true) {
        const double left = deadline - clock();
        if (left <= 0) {
            result.outcome = HeadReadResult::Outcome::timedOut;
            return result;
        }
        timeval timeout{};
        timeout.tv_sec = static_cast<time_t>(left);
        timeout.tv_usec = static_cast<suseconds_t>((left - std::floor(left)) * 1e6);
        if (timeout.tv_sec == 0 && timeout.tv_usec == 0) timeout.tv_usec = 1;
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

        const ssize_t n = recv(fd, chunk, head.nextReadSize(), 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            result.outcome = (errno == EAGAIN || errno == EWOULDBLOCK)
                                 ? HeadReadResult::Outcome::timedOut
                                 : HeadReadResult::Outcome::peerGone;
            return result;
        }
        if (n == 0) {
            result.outcome = HeadReadResult::Outcome::peerGone;
            return result;
        }
        switch (head.append(std::string_view(chunk, static_cast<size_t>(n)))) {
            case HTTPHeadBuffer::State::needMore:
                continue;
            case HTTPHeadBuffer::State::tooLarge:
                HTTPResponse::writeAll(
                    fd, HTTPResponse::status(431, "Request Header Fields Too Large", {}, {}));
                result.outcome = HeadReadResult::Outcome::tooLarge;
                return result;
            case HTTPHeadBuffer::State::complete:
                break;
        }
        result.request = HTTPRequest::parse(head.head());
        if (!result.request) {
            HTTPResponse::writeAll(fd, HTTPResponse::status(400, "Bad Request", {}, {}));
            result.outcome = HeadReadResult::Outcome::malformed;
            return result;
        }
        result.leftover = std::string(head.leftover());
        result.outcome = HeadReadResult::Outcome::request;
        return result;
    }
}

}  // namespace vt::net
