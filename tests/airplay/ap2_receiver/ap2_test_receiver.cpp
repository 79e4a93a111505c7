#include "ap2_test_receiver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "event_channel.h"
#include "media_packets.h"
#include "receiver_state.h"
#include "session_requests.h"

namespace vt::airplay_test {

namespace {

constexpr int kClockRequestIntervalMs = 125;

int udpSocket(const std::string& address, int& port) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &a.sin_addr);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
    return fd;
}

int tcpListener(const std::string& address, int& port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &a.sin_addr);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(fd, 4);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
    return fd;
}

}  // namespace

Ap2TestReceiver::Ap2TestReceiver(std::string address, int port)
    : address_(std::move(address)), port_(port), state_(std::make_unique<ReceiverState>()) {
    listenFd_ = tcpListener(address_, port_);
    stopFd_ = eventfd(0, EFD_CLOEXEC);
    ReceiverState& s = *state_;
    s.address = address_;
    s.dataFd = udpSocket(address_, s.dataPort);
    s.controlFd = udpSocket(address_, s.controlPort);
    s.eventFd = tcpListener(address_, s.eventPort);
    int any = 0;
    s.ptpFd = udpSocket(address_, any);
    control_ = std::thread([this] { serveControl(); });
    media_ = std::thread([this] { serveMedia(); });
}

Ap2TestReceiver::~Ap2TestReceiver() {
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(stopFd_, &one, sizeof one);
    control_.join();
    media_.join();
    ReceiverState& s = *state_;
    for (int fd :
         {listenFd_, stopFd_, s.dataFd, s.controlFd, s.eventFd, s.eventConnection, s.ptpFd})
        if (fd >= 0) close(fd);
}

void Ap2TestReceiver::serveControl() {
    pollfd waitFds[2] = {{listenFd_, POLLIN, 0}, {stopFd_, POLLIN, 0}};
    while (poll(waitFds, 2, -1) > 0 && !waitFds[1].revents) {
        const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        {
            // A new session: what the one before set up is gone.
            std::lock_guard lock(mutex_);
            ReceiverState& s = *state_;
            s.srp.reset();
            s.verifyShared.clear();
            s.sessionSetUp = s.recorded = s.streamSetUp = s.ptp = s.tornDown = false;
            s.senderTimingPort = 0;
            s.audioPackets = 0;
            s.lostSeq.reset();
            s.newestSeq.reset();
            s.nonces.clear();
            s.firstRtp.reset();
            s.packets.clear();
            s.anchor.reset();
            s.flushFrom.reset();
            s.syncs = 0;
            if (s.eventConnection >= 0) close(s.eventConnection);
            s.eventConnection = -1;
        }
        serveConnection(fd);
        close(fd);
    }
}

void Ap2TestReceiver::serveConnection(int fd) {
    {
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len);
        char text[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
        std::lock_guard lock(mutex_);
        state_->senderAddress = text;
    }
    std::optional<hap::FrameSealer> sealer;
    std::optional<hap::FrameOpener> opener;
    std::optional<hap::ChannelKeys> pendingKeys;
    std::string plain;
    char buf[4096];
    pollfd fds[2] = {{fd, POLLIN, 0}, {stopFd_, POLLIN, 0}};
    while (poll(fds, 2, -1) > 0 && !fds[1].revents) {
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) break;
        if (opener) {
            if (opener->append(std::string_view(buf, static_cast<size_t>(n)), plain) ==
                hap::FrameOpener::State::broken) {
                std::lock_guard lock(mutex_);
                state_->violations.push_back("a frame of the encrypted channel did not open");
                break;
            }
        } else {
            plain.append(buf, static_cast<size_t>(n));
        }
        bool malformed = false;
        while (auto request = takeRequest(plain, malformed)) {
            Reply reply;
            {
                std::lock_guard lock(mutex_);
                state_->requests.push_back(request->method + " " + request->uri);
                reply = handleRequest(*state_, *request, opener.has_value(), pendingKeys);
            }
            std::string out = "RTSP/1.0 " + std::to_string(reply.status) +
                              (reply.status == 200 ? " OK" : " Error") +
                              "\r\nCSeq: " + request->header("cseq") +
                              "\r\nServer: AirTunes/377.40.00\r\n";
            if (!reply.body.empty()) out += "Content-Type: " + reply.contentType + "\r\n";
            out += "Content-Length: " + std::to_string(reply.body.size()) + "\r\n\r\n" + reply.body;
            std::string wire;
            if (sealer)
                sealer->seal(out, wire);
            else
                wire = out;
            if (send(fd, wire.data(), wire.size(), MSG_NOSIGNAL) < 0) break;
            if (pendingKeys) {
                // The answer that ends pairing goes in clear; all after it is sealed.
                sealer.emplace(pendingKeys->outgoing);
                opener.emplace(pendingKeys->incoming);
                if (!plain.empty()) {
                    std::string rest;
                    rest.swap(plain);
                    opener->append(rest, plain);
                }
                pendingKeys.reset();
            }
        }
        if (malformed) {
            std::lock_guard lock(mutex_);
            state_->violations.push_back("a request that does not parse");
            break;
        }
    }
}

void Ap2TestReceiver::serveMedia() {
    ReceiverState& s = *state_;
    pollfd fds[5] = {{s.dataFd, POLLIN, 0},
                     {s.controlFd, POLLIN, 0},
                     {s.eventFd, POLLIN, 0},
                     {stopFd_, POLLIN, 0},
                     {-1, POLLIN, 0}};
    uint16_t ptpSequence = 0;
    int eventDone = -1;  // the event connection that closed or broke
    uint8_t buf[2048];
    auto nextClockRequest = std::chrono::steady_clock::now();
    for (;;) {
        const int ready = poll(fds, 5, kClockRequestIntervalMs);
        if (ready < 0 || fds[3].revents) return;
        std::lock_guard lock(mutex_);
        if (fds[2].revents & POLLIN) {
            const int fd = accept4(s.eventFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (s.eventConnection >= 0) s.violations.push_back("a second event connection");
            if (s.eventConnection < 0) {
                s.eventConnection = fd;
                openEventChannel(s, fd);
            } else {
                close(fd);
            }
        }
        // The connection this loop watches may have been closed by a new session.
        if (fds[4].fd >= 0 && fds[4].fd == s.eventConnection && (fds[4].revents & POLLIN)) {
            const ssize_t n = recv(s.eventConnection, buf, sizeof buf, 0);
            if (n <= 0 || !eventChannelBytes(s, {buf, static_cast<size_t>(n)}))
                eventDone = s.eventConnection;
        }
        fds[4].fd = s.eventConnection != eventDone ? s.eventConnection : -1;
        if (fds[0].revents & POLLIN) {
            const ssize_t n = recv(s.dataFd, buf, sizeof buf, 0);
            if (n > 0) audioPacket(s, {buf, static_cast<size_t>(n)}, false);
        }
        if (fds[1].revents & POLLIN) {
            const ssize_t n = recv(s.controlFd, buf, sizeof buf, 0);
            if (n > 0) controlPacket(s, {buf, static_cast<size_t>(n)});
        }
        const auto now = std::chrono::steady_clock::now();
        if (now >= nextClockRequest && !s.senderAddress.empty() && (s.ptp || s.senderTimingPort)) {
            if (s.ptp)
                sendDelayRequest(s, ptpSequence++);
            else
                sendTimingRequest(s);
            nextClockRequest = now + std::chrono::milliseconds(kClockRequestIntervalMs);
        }
    }
}

std::vector<std::string> Ap2TestReceiver::violations() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> all = state_->violations;
    if (state_->sessionSetUp && state_->eventConnection < 0)
        all.push_back("the sender never opened the event connection");
    return all;
}

std::optional<uint32_t> Ap2TestReceiver::flushedFromRtp() const {
    std::lock_guard lock(mutex_);
    if (!state_->flushFrom) return std::nullopt;
    return state_->flushFrom->second;
}

bool Ap2TestReceiver::eventAnswered() const {
    std::lock_guard lock(mutex_);
    return airplay_test::eventAnswered(*state_);
}

std::vector<std::string> Ap2TestReceiver::requests() const {
    std::lock_guard lock(mutex_);
    return state_->requests;
}

std::optional<double> Ap2TestReceiver::volumeDb() const {
    std::lock_guard lock(mutex_);
    return state_->volumeDb;
}

hap::Bytes Ap2TestReceiver::pairWith(const std::string& controllerID,
                                     const hap::Bytes& controllerPublicKey) {
    std::lock_guard lock(mutex_);
    state_->controllerID = controllerID;
    state_->controllerPublicKey = controllerPublicKey;
    return state_->identity.publicKey;
}

std::string Ap2TestReceiver::trackText() const {
    std::lock_guard lock(mutex_);
    return state_->trackText;
}

int Ap2TestReceiver::peakLevel() const {
    std::lock_guard lock(mutex_);
    return state_->peak;
}

size_t Ap2TestReceiver::framesReceived() const {
    std::lock_guard lock(mutex_);
    return state_->frames;
}

int Ap2TestReceiver::resentPackets() const {
    std::lock_guard lock(mutex_);
    return state_->resent;
}

int Ap2TestReceiver::syncPackets() const {
    std::lock_guard lock(mutex_);
    return state_->syncs;
}

int64_t Ap2TestReceiver::syncDeviationNs() const {
    std::lock_guard lock(mutex_);
    return state_->syncDeviationNs;
}

bool Ap2TestReceiver::tornDown() const {
    std::lock_guard lock(mutex_);
    return state_->tornDown;
}

std::optional<PlayedAudio> Ap2TestReceiver::played() const {
    std::lock_guard lock(mutex_);
    const ReceiverState& s = *state_;
    if (!s.firstRtp || !s.anchor || s.packets.empty()) return std::nullopt;
    PlayedAudio out;
    out.firstRtp = *s.firstRtp;
    const int64_t fromAnchor = static_cast<int32_t>(*s.firstRtp - s.anchor->first);
    out.firstFrameNs = s.anchor->second + fromAnchor * kNsPerSecond / kSampleRate;
    const uint32_t last = s.packets.rbegin()->first;
    for (uint32_t offset = 0; offset <= last; offset += kFramesPerPacket) {
        auto it = s.packets.find(offset);
        if (it == s.packets.end()) {
            ++out.missingPackets;
            out.samples.insert(out.samples.end(), kFramesPerPacket * 2, 0);
        } else {
            out.samples.insert(out.samples.end(), it->second.begin(), it->second.end());
        }
    }
    return out;
}

}  // namespace vt::airplay_test
