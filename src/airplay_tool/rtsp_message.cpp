#include "airplay_tool/rtsp_message.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace vt::airplay_tool {

namespace {

std::string lower(std::string_view s) {
    std::string out(s);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

bool isToken(std::string_view s) {
    if (s.empty()) return false;
    for (unsigned char c : s)
        if (c <= 32 || c >= 127 || c == ':') return false;
    return true;
}

}  // namespace

std::string RtspRequest::serialize() const {
    std::string out = method + " " + uri + " " + version + "\r\n";
    for (const auto& [name, value] : headers) out += name + ": " + value + "\r\n";
    if (!body.empty()) out += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    out += "\r\n";
    out += body;
    return out;
}

std::optional<std::string> RtspResponse::header(std::string_view name) const {
    const std::string key = lower(name);
    for (const auto& [n, v] : headers)
        if (n == key) return v;
    return std::nullopt;
}

std::optional<RtspResponse> parseRtspResponseHead(std::string_view head, std::string_view version) {
    RtspResponse r;
    size_t lineEnd = head.find("\r\n");
    std::string_view statusLine = head.substr(0, lineEnd);
    if (statusLine.substr(0, version.size()) != version ||
        statusLine.substr(version.size(), 1) != " ")
        return std::nullopt;
    statusLine.remove_prefix(version.size() + 1);
    if (statusLine.size() < 3) return std::nullopt;
    for (int i = 0; i < 3; ++i)
        if (!std::isdigit(static_cast<unsigned char>(statusLine[i]))) return std::nullopt;
    r.status = (statusLine[0] - '0') * 100 + (statusLine[1] - '0') * 10 + (statusLine[2] - '0');
    if (statusLine.size() > 3) {
        if (statusLine[3] != ' ') return std::nullopt;
        r.reason = std::string(trim(statusLine.substr(4)));
    }
    while (lineEnd != std::string_view::npos) {
        const size_t start = lineEnd + 2;
        lineEnd = head.find("\r\n", start);
        std::string_view line = head.substr(
            start, lineEnd == std::string_view::npos ? std::string_view::npos : lineEnd - start);
        if (line.empty()) continue;
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos) return std::nullopt;
        std::string_view name = line.substr(0, colon);
        if (!isToken(name)) return std::nullopt;
        if (r.headers.size() >= kMaxRtspHeaders) return std::nullopt;
        r.headers.emplace_back(lower(name), std::string(trim(line.substr(colon + 1))));
    }
    return r;
}

RtspResponseReader::State RtspResponseReader::append(std::string_view bytes) {
    if (state_ != State::needMore) return state_;
    buffer_.append(bytes);
    if (!haveHead_) {
        const size_t end = buffer_.find("\r\n\r\n");
        if (end == std::string::npos) {
            if (buffer_.size() > kMaxRtspHeadBytes) state_ = State::malformed;
            return state_;
        }
        if (end > kMaxRtspHeadBytes) return state_ = State::malformed;
        auto parsed = parseRtspResponseHead(std::string_view(buffer_).substr(0, end), version_);
        if (!parsed) return state_ = State::malformed;
        response_ = std::move(*parsed);
        bodyLength_ = 0;
        if (auto cl = response_.header("content-length")) {
            const char* first = cl->data();
            const char* last = first + cl->size();
            auto [ptr, ec] = std::from_chars(first, last, bodyLength_);
            if (ec != std::errc() || ptr != last || cl->empty()) return state_ = State::malformed;
            if (bodyLength_ > kMaxRtspBodyBytes) return state_ = State::malformed;
        }
        buffer_.erase(0, end + 4);
        haveHead_ = true;
        auto encoding = response_.header("transfer-encoding");
        chunked_ = encoding && lower(*encoding) == "chunked";
    }
    if (chunked_) return readChunks();
    if (buffer_.size() < bodyLength_) return state_;
    response_.body = buffer_.substr(0, bodyLength_);
    leftover_ = buffer_.substr(bodyLength_);
    buffer_.clear();
    return state_ = State::complete;
}

// HTTP peers may send the body in chunks: "<hex size>[;ext]\r\n<data>\r\n"
// until a chunk of size 0, then optional trailer lines and an empty line.
// Bytes are consumed as they are understood, so each is looked at once.
RtspResponseReader::State RtspResponseReader::readChunks() {
    for (;;) {
        if (trailers_) {
            const size_t end = buffer_.find("\r\n");
            if (end == std::string::npos) {
                if (buffer_.size() > kMaxRtspHeadBytes) return state_ = State::malformed;
                return state_;
            }
            buffer_.erase(0, end + 2);
            if (end > 0) continue;  // a trailer line: ignored
            leftover_ = std::move(buffer_);
            buffer_.clear();
            return state_ = State::complete;
        }
        if (chunkLeft_ == 0) {
            const size_t end = buffer_.find("\r\n");
            if (end == std::string::npos) {
                if (buffer_.size() > kMaxChunkLineBytes) return state_ = State::malformed;
                return state_;
            }
            const std::string_view line = std::string_view(buffer_).substr(0, end);
            const std::string_view digits = line.substr(0, line.find(';'));
            size_t size = 0;
            auto [ptr, ec] =
                std::from_chars(digits.data(), digits.data() + digits.size(), size, 16);
            if (digits.empty() || ec != std::errc() || ptr != digits.data() + digits.size() ||
                size > kMaxRtspBodyBytes - response_.body.size())
                return state_ = State::malformed;
            buffer_.erase(0, end + 2);
            if (size == 0) {
                trailers_ = true;
                continue;
            }
            chunkLeft_ = size + 2;  // the data and its closing CRLF
        }
        const size_t take = std::min(chunkLeft_, buffer_.size());
        if (take == 0) return state_;
        const size_t data = chunkLeft_ > 2 ? std::min(take, chunkLeft_ - 2) : 0;
        response_.body.append(buffer_, 0, data);
        for (size_t i = data; i < take; ++i) {
            // Byte i is CR when two remain of the chunk, LF when one does.
            const char expected = chunkLeft_ - i == 2 ? '\r' : '\n';
            if (buffer_[i] != expected) return state_ = State::malformed;
        }
        buffer_.erase(0, take);
        chunkLeft_ -= take;
    }
}

}  // namespace vt::airplay_tool
