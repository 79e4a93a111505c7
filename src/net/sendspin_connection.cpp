#include "net/sendspin_connection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "net/monotonic.h"
#include "net/text.h"
#include "net/websocket_frame.h"

namespace vt::net {

using WebSocketFrame::Opcode;

namespace {

// While output waits, the loop looks at least this often even without a wake-up.
constexpr int kPollMs = 20;
// With nothing to write, the loop sleeps until input, a wake-up or this.
constexpr int kIdlePollMs = 500;
constexpr size_t kReadChunk = 4'096;
// Left to itself the kernel grows a socket's send buffer to megabytes, and audio
// parked there is audio a control message waits behind. A small buffer keeps the
// backlog in our queue, where control overtakes it and the bound drops it.
constexpr int kSendBufferBytes = 32 * 1024;

std::string closeFrame(std::string_view payload) {
    return WebSocketFrame::encode(Opcode::close, payload);
}

std::string closeCode(uint16_t code) {
    const char bytes[2] = {static_cast<char>(code >> 8), static_cast<char>(code & 0xFF)};
    return std::string(bytes, 2);
}

}  // namespace

SendspinConnection::SendspinConnection(int fd, int64_t id, Limits limits)
    : id_(id), fd_(fd), limits_(limits) {
    const int flags = fcntl(fd_, F_GETFL, 0);
    fcntl(fd_, F_SETFL, flags | O_NONBLOCK);
    setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof kSendBufferBytes);
    lastInbound_ = monotonicSeconds();
    wake_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

SendspinConnection::~SendspinConnection() {
    if (fd_ >= 0) ::close(fd_);
    if (wake_ >= 0) ::close(wake_);
}

void SendspinConnection::run(std::string_view leftover) {
    const size_t maxPayload =
        limits_.maxMessage ? std::min(*limits_.maxMessage, kMaxFramePayload) : kMaxFramePayload;
    WebSocketFrame::Parser parser(maxPayload, WebSocketFrame::From::client);

    const auto feed = [&](std::string_view bytes, int64_t receivedUs) {
        auto frames = parser.append(bytes);
        if (!frames) {
            queueClose(*parser.closeCode());
            return false;
        }
        for (auto& frame : *frames) {
            if (!handleFrame(frame.opcode, frame.fin, std::move(frame.payload), receivedUs)) {
                return false;
            }
        }
        return true;
    };

    bool going = leftover.empty() || feed(leftover, monotonicUs());
    char chunk[kReadChunk];
    while (going) {
        short events = POLLIN;
        {
            std::lock_guard guard(lock_);
            if (!isOpen_) break;
            flushLocked();
            if (!isOpen_) break;
            // Waiting for room as well as for input lets a backlog resume the
            // moment the client reads, instead of at the next tick.
            pollingForOutput_ = hasPendingOutputLocked();
            if (pollingForOutput_) events |= POLLOUT;
        }
        pollfd pfds[2] = {{fd_, events, 0}, {wake_, POLLIN, 0}};
        const int ready =
            poll(pfds, wake_ >= 0 ? 2 : 1, events & POLLOUT || wake_ < 0 ? kPollMs : kIdlePollMs);
        if (ready < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (pfds[1].revents & POLLIN) {
            uint64_t count = 0;
            [[maybe_unused]] const ssize_t ignored = read(wake_, &count, sizeof count);
        }
        if (ready == 0 || (pfds[0].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;

        const ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
        const int64_t receivedUs = monotonicUs();
        if (n == 0) break;
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
            break;
        }
        {
            std::lock_guard guard(lock_);
            lastInbound_ = monotonicSeconds();
        }
        going = feed(std::string_view(chunk, static_cast<size_t>(n)), receivedUs);
    }

    {
        std::lock_guard guard(lock_);
        if (isOpen_) {
            flushLocked();
            isOpen_ = false;
            control_.clear();
            audio_.clear();
            audioBytes_ = 0;
        }
    }
    ::close(fd_);
    fd_ = -1;
}

bool SendspinConnection::handleFrame(uint8_t opcode, bool fin, std::string payload,
                                     int64_t receivedUs) {
    switch (opcode) {
        case static_cast<uint8_t>(Opcode::pong):
            return true;
        case static_cast<uint8_t>(Opcode::ping): {
            std::string pong = WebSocketFrame::encode(Opcode::pong, payload);
            enqueueControl([pong = std::move(pong)] { return pong; });
            return true;
        }
        case static_cast<uint8_t>(Opcode::close): {
            std::string reply = closeFrame(std::string_view(payload).substr(0, 2));
            enqueueControl([reply = std::move(reply)] { return reply; });
            return false;
        }
        default:
            break;
    }
    // A continuation needs a message to continue, and a new message may not
    // start inside an unfinished one.
    const bool continuation = opcode == static_cast<uint8_t>(Opcode::continuation);
    if (continuation != inMessage_) {
        queueClose(WebSocketFrame::kCloseProtocolError);
        return false;
    }
    if (!continuation) {
        message_.clear();
        messageOpcode_ = opcode;
    }
    if (limits_.maxMessage && message_.size() + payload.size() > *limits_.maxMessage) {
        queueClose(WebSocketFrame::kCloseTooBig);
        return false;
    }
    message_ += payload;
    inMessage_ = !fin;
    if (fin && messageOpcode_ == static_cast<uint8_t>(Opcode::text) && onText_) {
        onText_(repairUtf8(message_), receivedUs);
    }
    return true;
}

void SendspinConnection::queueClose(uint16_t code) {
    std::string frame = closeFrame(closeCode(code));
    enqueueControl([frame = std::move(frame)] { return frame; });
}

void SendspinConnection::sendText(std::string_view text) {
    std::string frame = WebSocketFrame::encode(Opcode::text, text);
    enqueueControl([frame = std::move(frame)] { return frame; });
}

void SendspinConnection::sendText(std::function<std::string()> building) {
    enqueueControl([building = std::move(building)] {
        return WebSocketFrame::encode(Opcode::text, building());
    });
}

void SendspinConnection::sendPing(std::string_view payload) {
    std::string frame = WebSocketFrame::encode(Opcode::ping, payload);
    enqueueControl([frame = std::move(frame)] { return frame; });
}

void SendspinConnection::sendBinary(std::string_view payload) {
    std::string frame = WebSocketFrame::encode(Opcode::binary, payload);
    std::lock_guard guard(lock_);
    if (!isOpen_) return;
    if (audioBytes_ + frame.size() <= kMaxQueuedAudioBytes) {
        audioBytes_ += frame.size();
        audio_.push_back(std::move(frame));
    } else {
        ++droppedFrames_;
    }
    flushLocked();
}

void SendspinConnection::enqueueControl(ControlItem item) {
    std::lock_guard guard(lock_);
    if (!isOpen_) return;
    if (limits_.maxControlQueue && control_.size() >= *limits_.maxControlQueue) {
        dropLocked();
        return;
    }
    control_.push_back(std::move(item));
    flushLocked();
}

void SendspinConnection::close(std::optional<uint16_t> code) {
    std::lock_guard guard(lock_);
    if (!isOpen_) return;
    if (code && inFlight_.empty()) {
        const std::string frame = closeFrame(closeCode(*code));
        [[maybe_unused]] const ssize_t ignored =
            send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    dropLocked();
}

void SendspinConnection::dropLocked() {
    isOpen_ = false;
    shutdown(fd_, SHUT_RDWR);
    control_.clear();
    audio_.clear();
    audioBytes_ = 0;
    inFlight_.clear();
    inFlightWritten_ = 0;
}

bool SendspinConnection::hasPendingOutputLocked() const {
    return !inFlight_.empty() || !control_.empty() || !audio_.empty();
}

void SendspinConnection::flushLocked() {
    while (isOpen_) {
        if (inFlight_.empty()) {
            if (!control_.empty()) {
                // Built now, at the head of the queue, so a stamp inside is the send time.
                ControlItem item = std::move(control_.front());
                control_.pop_front();
                inFlight_ = item();
            } else if (!audio_.empty()) {
                inFlight_ = std::move(audio_.front());
                audio_.pop_front();
                audioBytes_ -= inFlight_.size();
            } else {
                return;
            }
            inFlightWritten_ = 0;
            if (inFlight_.empty()) continue;
        }
        while (inFlightWritten_ < inFlight_.size()) {
            const ssize_t n =
                send(fd_, inFlight_.data() + inFlightWritten_, inFlight_.size() - inFlightWritten_,
                     MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n > 0) {
                inFlightWritten_ += static_cast<size_t>(n);
                continue;
            }
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
                wakeLocked();
                return;
            }
            dropLocked();
            return;
        }
        inFlight_.clear();
        inFlightWritten_ = 0;
    }
}

void SendspinConnection::wakeLocked() {
    // The loop already waits for room; otherwise it must start to.
    if (pollingForOutput_ || wake_ < 0) return;
    pollingForOutput_ = true;
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t ignored = write(wake_, &one, sizeof one);
}

bool SendspinConnection::isOpen() const {
    std::lock_guard guard(lock_);
    return isOpen_;
}

int64_t SendspinConnection::droppedFrames() const {
    std::lock_guard guard(lock_);
    return droppedFrames_;
}

size_t SendspinConnection::queuedAudioBytes() const {
    std::lock_guard guard(lock_);
    return audioBytes_;
}

double SendspinConnection::lastInbound() const {
    std::lock_guard guard(lock_);
    return lastInbound_;
}

}  // namespace vt::net
