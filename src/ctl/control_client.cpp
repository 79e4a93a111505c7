#include "ctl/control_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>

#include "remote/message_codec.h"

namespace vt::ctl {

ControlClient::ControlClient(const std::filesystem::path& path) {
    const std::string notRunning =
        "Vellatone is not running (nothing answers at " + path.string() + ").";
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.string().size() >= sizeof addr.sun_path)
        throw ControlError("The control socket path " + path.string() + " is too long.");
    std::memcpy(addr.sun_path, path.c_str(), path.string().size() + 1);
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0)
        throw ControlError("Cannot make a socket: " + std::string(std::strerror(errno)) + ".");
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        if (errno == EACCES)
            throw ControlError("You may not reach Vellatone's control socket at " + path.string() +
                               ".");
        throw ControlError(notRunning);
    }
    bool gotState = false;
    readUntil([&](const std::string& line) {
        gotState = gotState || line.rfind("{\"state\"", 0) == 0;
        return gotState;
    });
}

ControlClient::~ControlClient() {
    if (fd_ >= 0) ::close(fd_);
}

void ControlClient::sendLine(const std::string& line) {
    std::string bytes = line + "\n";
    size_t off = 0;
    while (off < bytes.size()) {
        ssize_t n = ::send(fd_, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw ControlError("Vellatone closed the connection.");
        off += size_t(n);
    }
}

void ControlClient::send(const remote::PhoneMessage& message) {
    std::string line = remote::encode(message);
    if (!line.empty() && line.back() == '\n') line.pop_back();
    sendLine(line);
}

void ControlClient::sync() {
    const int64_t id = nextPing_++;
    send(remote::PhoneMessage::Ping{id, 0.0});
    readUntil([&](const std::string& line) {
        if (line.rfind("{\"pong\"", 0) != 0) return false;
        auto m = remote::tryDecodeMacMessage(line);
        const auto* pong = m ? m->get<remote::MacMessage::Pong>() : nullptr;
        return pong && pong->id == id;
    });
}

nlohmann::json ControlClient::mixerRequest(const nlohmann::json& line) {
    return request(line, "mixer.", timeoutSeconds);
}

nlohmann::json ControlClient::calibrationRequest(const nlohmann::json& line) {
    return request(line, "calibration.", calibrationTimeoutSeconds);
}

nlohmann::json ControlClient::request(const nlohmann::json& line, const std::string& typePrefix,
                                      double timeout) {
    sendLine(line.dump());
    nlohmann::json answer;
    readUntil(
        [&](const std::string& text) {
            if (text.find("\"" + typePrefix) == std::string::npos) return false;
            try {
                answer = remote::parseLine(text);
            } catch (const std::exception&) {
                return false;
            }
            return answer.is_object() && answer.value("type", "").rfind(typePrefix, 0) == 0;
        },
        timeout);
    return answer;
}

void ControlClient::readUntil(const std::function<bool(const std::string&)>& done, double timeout) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::duration<double>(timeout);
    std::deque<std::string> lines;
    for (;;) {
        while (!lines.empty()) {
            std::string line = std::move(lines.front());
            lines.pop_front();
            if (auto m = remote::tryDecodeMacMessage(line))
                if (const auto* s = m->get<remote::MacMessage::State>()) state_ = s->value;
            if (done(line)) return;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) throw ControlError("Vellatone did not answer in time.");
        pollfd p{fd_, POLLIN, 0};
        int r = ::poll(&p, 1, int(left.count()));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) continue;
        char buf[65536];
        ssize_t n = ::read(fd_, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw ControlError("Vellatone closed the connection.");
        try {
            for (std::string& l : codec_.feed(std::string_view(buf, size_t(n))))
                lines.push_back(std::move(l));
        } catch (const remote::LineCodec::Error&) {
            throw ControlError("Vellatone sent a line too long to read.");
        }
    }
}

}  // namespace vt::ctl
