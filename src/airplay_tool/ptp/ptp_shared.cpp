#include "airplay_tool/ptp/ptp_shared.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace vt::airplay_tool::ptp {

namespace {

constexpr const char* socketName = "vellatone-ptp.sock";
constexpr size_t maxFields = 16;

std::optional<in_addr> address(std::string_view text) {
    if (text.empty() || text.size() >= INET_ADDRSTRLEN) return std::nullopt;
    in_addr a{};
    if (::inet_pton(AF_INET, std::string(text).c_str(), &a) != 1) return std::nullopt;
    return a;
}

std::string addressText(in_addr a) {
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &a, text, sizeof text);
    return text;
}

template <typename Int>
std::optional<Int> number(std::string_view text) {
    Int v{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return v;
}

std::string_view trimmed(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r' || line.back() == ' '))
        line.remove_suffix(1);
    return line;
}

}  // namespace

std::string defaultSharedSocketPath() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime && *runtime) return std::string(runtime) + "/" + socketName;
    return "/tmp/vellatone-ptp-" + std::to_string(::getuid()) + ".sock";
}

std::optional<SharedRequest> parseSharedRequest(std::string_view line) {
    line = trimmed(line);
    if (line.empty() || line.size() > sharedLineBytes) return std::nullopt;
    SharedRequest r;
    switch (line[0]) {
        case '?':
            r.kind = SharedRequest::Kind::status;
            break;
        case 'R':
            r.kind = SharedRequest::Kind::addPeer;
            break;
        case 'U':
            r.kind = SharedRequest::Kind::removePeer;
            break;
        case 'F':
            r.kind = SharedRequest::Kind::followPeer;
            break;
        default:
            return std::nullopt;
    }
    if (line.size() == 1) {
        if (r.kind != SharedRequest::Kind::status) return std::nullopt;
        return r;
    }
    if (line[1] != ' ') return std::nullopt;
    r.peer = address(line.substr(2));
    if (!r.peer) return std::nullopt;
    return r;
}

std::string sharedRequestLine(const SharedRequest& r) {
    std::string letter = "?";
    switch (r.kind) {
        case SharedRequest::Kind::status:
            break;
        case SharedRequest::Kind::addPeer:
            letter = "R";
            break;
        case SharedRequest::Kind::removePeer:
            letter = "U";
            break;
        case SharedRequest::Kind::followPeer:
            letter = "F";
            break;
    }
    return r.peer ? letter + " " + addressText(*r.peer) : letter;
}

std::optional<SharedStatus> parseSharedStatus(std::string_view line) {
    line = trimmed(line);
    if (line.size() > sharedLineBytes) return std::nullopt;
    SharedStatus s;
    bool haveID = false, haveState = false;
    size_t fields = 0;
    while (!line.empty()) {
        const size_t blank = line.find(' ');
        const std::string_view field = line.substr(0, blank);
        line = blank == std::string_view::npos ? std::string_view() : line.substr(blank + 1);
        if (field.empty()) continue;
        if (++fields > maxFields) return std::nullopt;
        const size_t equals = field.find('=');
        if (equals == std::string_view::npos) return std::nullopt;
        const std::string_view key = field.substr(0, equals), value = field.substr(equals + 1);
        if (key == "clock_id") {
            if (value.size() != 16 ||
                value.find_first_not_of("0123456789abcdef") != std::string_view::npos)
                return std::nullopt;
            s.clockID = value;
            haveID = true;
        } else if (key == "clock_number") {
            auto n = number<int64_t>(value);
            if (!n) return std::nullopt;
            s.clockNumber = *n;
        } else if (key == "mode") {
            if (value != "lead" && value != "follow") return std::nullopt;
            s.mode = value;
        } else if (key == "state") {
            if (value != "cold" && value != "probing" && value != "ready" && value != "stalled")
                return std::nullopt;
            s.state = value;
            haveState = true;
        } else if (key == "offset_ns") {
            auto n = number<int64_t>(value);
            if (!n) return std::nullopt;
            s.offsetNs = *n;
        } else if (key == "peers") {
            auto n = number<int>(value);
            if (!n || *n < 0) return std::nullopt;
            s.peers = *n;
        } else if (key == "exchanges") {
            auto n = number<int>(value);
            if (!n || *n < 0) return std::nullopt;
            s.exchanges = *n;
        } else if (key == "heard") {
            if (value != "0" && value != "1") return std::nullopt;
            s.heard = value == "1";
        }
        // Unknown fields are for newer daemons; they are skipped.
    }
    if (!haveID || !haveState) return std::nullopt;
    return s;
}

std::string sharedStatusLine(const SharedStatus& s) {
    std::string line = "clock_id=" + s.clockID + " clock_number=" + std::to_string(s.clockNumber) +
                       " mode=" + s.mode + " state=" + s.state +
                       " offset_ns=" + std::to_string(s.offsetNs) +
                       " peers=" + std::to_string(s.peers);
    if (s.heard)
        line += std::string(" heard=") + (*s.heard ? "1" : "0") +
                " exchanges=" + std::to_string(s.exchanges);
    return line;
}

std::optional<SharedStatus> askSharedClock(const std::string& path, const SharedRequest& request,
                                           int timeoutMs) {
    sockaddr_un daemon{};
    daemon.sun_family = AF_UNIX;
    if (path.size() >= sizeof daemon.sun_path) return std::nullopt;
    std::memcpy(daemon.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return std::nullopt;
    // An address of our own (abstract, chosen by the kernel) for the answer.
    sockaddr_un own{};
    own.sun_family = AF_UNIX;
    std::optional<SharedStatus> answer;
    const std::string line = sharedRequestLine(request);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&own), sizeof(sa_family_t)) == 0 &&
        ::sendto(fd, line.data(), line.size(), 0, reinterpret_cast<sockaddr*>(&daemon),
                 sizeof daemon) == ssize_t(line.size())) {
        pollfd waiting{fd, POLLIN, 0};
        if (::poll(&waiting, 1, timeoutMs) == 1) {
            char reply[sharedLineBytes + 1];
            const ssize_t n = ::recv(fd, reply, sharedLineBytes, MSG_DONTWAIT);
            if (n > 0) answer = parseSharedStatus(std::string_view(reply, size_t(n)));
        }
    }
    ::close(fd);
    return answer;
}

}  // namespace vt::airplay_tool::ptp
