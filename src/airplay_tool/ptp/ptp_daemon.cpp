#include "airplay_tool/ptp/ptp_daemon.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "airplay_tool/ptp/ptp_engine.h"
#include "airplay_tool/ptp/ptp_shared.h"
#include "airplay_tool/ptp/ptp_sockets.h"

namespace vt::airplay_tool::ptp {

namespace {

constexpr int maxRequestsPerWake = 16;

int sharedSocket(const std::string& path, std::string& why) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        why = "the shared socket's path is too long: " + path;
        return -1;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        why = std::string("cannot make the shared socket: ") + std::strerror(errno);
        return -1;
    }
    // We hold the PTP ports, so no other daemon lives: what is there is left over.
    ::unlink(path.c_str());
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        why = "cannot bind the shared socket " + path + ": " + std::strerror(errno);
        ::close(fd);
        return -1;
    }
    ::chmod(path.c_str(), 0600);
    return fd;
}

void answerSenders(PtpEngine& engine, int shared) {
    for (int i = 0; i < maxRequestsPerWake; ++i) {
        char line[sharedLineBytes + 1];
        sockaddr_un from{};
        socklen_t fromLength = sizeof from;
        const ssize_t n = ::recvfrom(shared, line, sharedLineBytes, MSG_DONTWAIT,
                                     reinterpret_cast<sockaddr*>(&from), &fromLength);
        if (n <= 0) return;
        const auto request = parseSharedRequest(std::string_view(line, size_t(n)));
        if (!request) continue;
        if (request->kind == SharedRequest::Kind::addPeer) engine.addPeer(*request->peer);
        if (request->kind == SharedRequest::Kind::removePeer) engine.removePeer(*request->peer);
        if (request->kind == SharedRequest::Kind::followPeer) engine.followPeer(*request->peer);
        const std::string reply = sharedStatusLine(engine.status(request->peer));
        ::sendto(shared, reply.data(), reply.size(), MSG_DONTWAIT,
                 reinterpret_cast<sockaddr*>(&from), fromLength);
    }
}

}  // namespace

int runPtpDaemon(const PtpDaemonOptions& options, StatusWriter& status, int stopFd) {
    PtpSockets::Failure failure;
    std::string why;
    auto sockets = PtpSockets::open(options.interfaceAddress, failure, why);
    if (!sockets) {
        status.error(failure == PtpSockets::Failure::noPrivilege ? error_code::ptpNoPrivilege
                                                                 : error_code::ptpPorts,
                     0, why);
        return exitNoPorts;
    }
    const int shared = sharedSocket(options.sharedPath, why);
    if (shared < 0) {
        status.error(error_code::ptpPorts, 0, why);
        return 1;
    }
    PtpEngine engine({options.deviceID, options.follow}, std::move(*sockets));
    auto say = [&](const SharedStatus& s) {
        status.ptpClock("mode=" + s.mode + " clock_id=" + s.clockID + " state=" + s.state +
                        " offset_ns=" + std::to_string(s.offsetNs) +
                        " timestamps=" + (engine.kernelTimestamps() ? "kernel" : "user") +
                        " shared=" + options.sharedPath);
    };
    engine.onStateChange = say;
    say(engine.status());
    const int result = engine.run(stopFd, shared, [&] { answerSenders(engine, shared); });
    ::close(shared);
    ::unlink(options.sharedPath.c_str());
    return result;
}

}  // namespace vt::airplay_tool::ptp
