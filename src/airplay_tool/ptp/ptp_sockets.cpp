#include "airplay_tool/ptp/ptp_sockets.h"

#include <arpa/inet.h>
#include <linux/errqueue.h>
#include <linux/net_tstamp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "airplay_tool/ptp/ptp_message.h"

namespace vt::airplay_tool::ptp {

namespace {

constexpr int nsPerSecond = 1'000'000'000;
constexpr size_t largestDatagram = 1500;
// How long the kernel may take to hand back the time a packet left.
constexpr int transmitStampWaitMs = 10;
constexpr int multicastTtl = 1;
constexpr size_t controlBytes = 512;

int64_t toNs(const timespec& t) {
    return int64_t(t.tv_sec) * nsPerSecond + t.tv_nsec;
}

// The software stamp of a received or looped-back message, if the kernel gave one.
std::optional<int64_t> stampIn(msghdr& message) {
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c)) {
        if (c->cmsg_level != SOL_SOCKET) continue;
        if (c->cmsg_type == SO_TIMESTAMPING && c->cmsg_len >= CMSG_LEN(sizeof(timespec) * 3)) {
            timespec stamps[3];
            std::memcpy(stamps, CMSG_DATA(c), sizeof stamps);
            if (stamps[0].tv_sec || stamps[0].tv_nsec) return toNs(stamps[0]);
        }
        if (c->cmsg_type == SO_TIMESTAMPNS && c->cmsg_len >= CMSG_LEN(sizeof(timespec))) {
            timespec stamp;
            std::memcpy(&stamp, CMSG_DATA(c), sizeof stamp);
            return toNs(stamp);
        }
    }
    return std::nullopt;
}

int bound(uint16_t port, const in_addr& interface, PtpSockets::Failure& failure, std::string& why) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        failure = PtpSockets::Failure::other;
        why = std::string("cannot make a UDP socket: ") + std::strerror(errno);
        return -1;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        ::close(fd);
        if (error == EACCES || error == EPERM) {
            failure = PtpSockets::Failure::noPrivilege;
            why =
                "cannot use the PTP ports 319 and 320: binding them needs root or "
                "CAP_NET_BIND_SERVICE";
        } else if (error == EADDRINUSE) {
            failure = PtpSockets::Failure::inUse;
            why = "the PTP ports 319 and 320 are in use by another program (another PTP daemon?)";
        } else {
            failure = PtpSockets::Failure::other;
            why = "cannot bind UDP port " + std::to_string(port) + ": " + std::strerror(error);
        }
        return -1;
    }
    // Without a route for multicast there is no group to join; unicast still works.
    for (in_addr joined : {PtpSockets::multicast(), PtpSockets::peerDelayMulticast()}) {
        ip_mreq group{};
        group.imr_multiaddr = joined;
        group.imr_interface = interface;
        ::setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group);
    }
    ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface);
    const unsigned char off = 0, ttl = multicastTtl;
    ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &off, sizeof off);
    ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl);
    return fd;
}

bool sendTo(int fd, std::span<const uint8_t> bytes, in_addr to, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr = to;
    return ::sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&address),
                    sizeof address) == ssize_t(bytes.size());
}

}  // namespace

int64_t realtimeNs() {
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    return toNs(now);
}

in_addr PtpSockets::multicast() {
    in_addr group{};
    ::inet_pton(AF_INET, multicastGroup, &group);
    return group;
}

in_addr PtpSockets::peerDelayMulticast() {
    in_addr group{};
    ::inet_pton(AF_INET, peerDelayGroup, &group);
    return group;
}

std::optional<PtpSockets> PtpSockets::open(const std::string& interfaceAddress, Failure& failure,
                                           std::string& why) {
    failure = Failure::none;
    in_addr interface {};
    interface.s_addr = htonl(INADDR_ANY);
    if (!interfaceAddress.empty() &&
        ::inet_pton(AF_INET, interfaceAddress.c_str(), &interface) != 1) {
        failure = Failure::other;
        why = "not an IPv4 address: " + interfaceAddress;
        return std::nullopt;
    }
    const int event = bound(eventPort, interface, failure, why);
    if (event < 0) return std::nullopt;
    const int general = bound(generalPort, interface, failure, why);
    if (general < 0) {
        ::close(event);
        return std::nullopt;
    }
    const int stamping = SOF_TIMESTAMPING_TX_SOFTWARE | SOF_TIMESTAMPING_RX_SOFTWARE |
                         SOF_TIMESTAMPING_SOFTWARE | SOF_TIMESTAMPING_OPT_TSONLY;
    bool kernel = ::setsockopt(event, SOL_SOCKET, SO_TIMESTAMPING, &stamping, sizeof stamping) == 0;
    if (!kernel) {
        const int on = 1;
        ::setsockopt(event, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
    }
    return PtpSockets(event, general, kernel);
}

PtpSockets::PtpSockets(PtpSockets&& other) noexcept
    : event_(other.event_), general_(other.general_), kernelStamps_(other.kernelStamps_) {
    other.event_ = other.general_ = -1;
}

PtpSockets::~PtpSockets() {
    if (event_ >= 0) ::close(event_);
    if (general_ >= 0) ::close(general_);
}

void PtpSockets::dropStaleStamps() {
    char control[controlBytes];
    for (int i = 0; i < 16; ++i) {
        msghdr message{};
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        if (::recvmsg(event_, &message, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) return;
    }
}

std::optional<int64_t> PtpSockets::transmitStamp() {
    pollfd waiting{event_, POLLPRI, 0};
    const int64_t giveUp = realtimeNs() + int64_t(transmitStampWaitMs) * 1'000'000;
    for (;;) {
        const int64_t left = giveUp - realtimeNs();
        if (left <= 0) return std::nullopt;
        if (::poll(&waiting, 1, int(left / 1'000'000) + 1) <= 0) return std::nullopt;
        char control[controlBytes];
        msghdr message{};
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        if (::recvmsg(event_, &message, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) {
            if (errno == EAGAIN || errno == EINTR) continue;
            return std::nullopt;
        }
        if (auto stamp = stampIn(message)) return stamp;
    }
}

std::optional<int64_t> PtpSockets::sendEvent(std::span<const uint8_t> bytes, in_addr to) {
    if (kernelStamps_) dropStaleStamps();
    const int64_t before = realtimeNs();
    if (!sendTo(event_, bytes, to, eventPort)) return std::nullopt;
    if (!kernelStamps_) return before;
    return transmitStamp().value_or(before);
}

bool PtpSockets::sendGeneral(std::span<const uint8_t> bytes, in_addr to) {
    return sendTo(general_, bytes, to, generalPort);
}

std::optional<Datagram> PtpSockets::receive(int fd) {
    Datagram d;
    d.bytes.resize(largestDatagram);
    sockaddr_in from{};
    iovec data{d.bytes.data(), d.bytes.size()};
    char control[controlBytes];
    msghdr message{};
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t n = ::recvmsg(fd, &message, MSG_DONTWAIT);
    const int64_t now = realtimeNs();
    if (n < 0) return std::nullopt;
    d.bytes.resize(size_t(n));
    d.from = from.sin_addr;
    d.receivedNs = stampIn(message).value_or(now);
    return d;
}

}  // namespace vt::airplay_tool::ptp
