#include "airplay_tool/event_requests.h"

#include <cctype>
#include <charconv>
#include <optional>

#include "airplay_tool/rtsp_message.h"

namespace vt::airplay_tool {

namespace {

// A CSeq is echoed back as it came, so only plain digits are taken.
constexpr size_t kMaxCseqDigits = 9;

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

bool sameName(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

bool isDigits(std::string_view s) {
    if (s.empty() || s.size() > kMaxCseqDigits) return false;
    for (unsigned char c : s)
        if (!std::isdigit(c)) return false;
    return true;
}

struct RequestHead {
    std::string_view version;
    std::string_view cseq;
    size_t bodyBytes = 0;
};

// "<METHOD> <URI> RTSP/1.0" and "Name: value" lines; nothing for anything else.
std::optional<RequestHead> readHead(std::string_view head) {
    size_t lineEnd = head.find("\r\n");
    const std::string_view requestLine = head.substr(0, lineEnd);
    const size_t firstSpace = requestLine.find(' ');
    const size_t lastSpace = requestLine.rfind(' ');
    if (firstSpace == std::string_view::npos || firstSpace == 0 || lastSpace == firstSpace)
        return std::nullopt;
    RequestHead r;
    r.version = requestLine.substr(lastSpace + 1);
    if (r.version != kRtspVersion && r.version != kHttpVersion) return std::nullopt;
    size_t headers = 0;
    while (lineEnd != std::string_view::npos) {
        const size_t start = lineEnd + 2;
        lineEnd = head.find("\r\n", start);
        const std::string_view line = head.substr(
            start, lineEnd == std::string_view::npos ? std::string_view::npos : lineEnd - start);
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos || colon == 0 || ++headers > kMaxRtspHeaders)
            return std::nullopt;
        const std::string_view name = line.substr(0, colon);
        const std::string_view value = trim(line.substr(colon + 1));
        if (sameName(name, "CSeq")) {
            if (!isDigits(value)) return std::nullopt;
            r.cseq = value;
        } else if (sameName(name, "Content-Length")) {
            auto [end, ec] =
                std::from_chars(value.data(), value.data() + value.size(), r.bodyBytes);
            if (value.empty() || ec != std::errc() || end != value.data() + value.size() ||
                r.bodyBytes > kMaxRtspBodyBytes)
                return std::nullopt;
        }
    }
    return r;
}

}  // namespace

bool EventRequestReader::append(std::string_view bytes, std::string& answers) {
    if (broken_) return false;
    buffer_.append(bytes);
    for (;;) {
        const size_t headEnd = buffer_.find("\r\n\r\n");
        if (headEnd == std::string::npos) {
            broken_ = buffer_.size() > kMaxRtspHeadBytes;
            return !broken_;
        }
        const auto head = headEnd <= kMaxRtspHeadBytes
                              ? readHead(std::string_view(buffer_).substr(0, headEnd))
                              : std::nullopt;
        if (!head) {
            broken_ = true;
            buffer_.clear();
            return false;
        }
        const size_t whole = headEnd + 4 + head->bodyBytes;
        if (buffer_.size() < whole) return true;
        answers.append(head->version).append(" 200 OK\r\n");
        if (!head->cseq.empty()) answers.append("CSeq: ").append(head->cseq).append("\r\n");
        answers.append("Content-Length: 0\r\n\r\n");
        buffer_.erase(0, whole);
        ++answered_;
    }
}

}  // namespace vt::airplay_tool
