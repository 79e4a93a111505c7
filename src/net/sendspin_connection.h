// One WebSocket client. Its own thread reads and writes; producers on other
// threads write too, under the lock. Control frames always go before audio, and
// audio that the client cannot take is dropped rather than piled up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace vt::net {

// About two seconds of 10 ms stereo frames: beyond this a client is behind for good.
inline constexpr size_t kMaxQueuedAudioBytes = 384'000;
inline constexpr size_t kMaxFramePayload = 4'194'304;

class SendspinConnection {
  public:
    struct Limits {
        std::optional<size_t> maxMessage;
        std::optional<size_t> maxControlQueue;
    };
    using TextHandler = std::function<void(std::string_view text, int64_t receivedUs)>;
    using ControlItem = std::function<std::string()>;  // yields one encoded frame

    // Takes the socket; makes it non-blocking.
    SendspinConnection(int fd, int64_t id, Limits limits);
    ~SendspinConnection();
    SendspinConnection(const SendspinConnection&) = delete;
    SendspinConnection& operator=(const SendspinConnection&) = delete;

    int64_t id() const { return id_; }
    // Set before `run`.
    void setOnText(TextHandler handler) { onText_ = std::move(handler); }

    // Blocks until the connection ends, then closes the socket.
    void run(std::string_view leftover);

    void sendText(std::string_view text);
    void sendText(std::function<std::string()> building);
    void sendBinary(std::string_view payload);
    void sendPing(std::string_view payload = {});
    // Ends the connection; with a code, a close frame goes first if it cannot
    // cut into a frame already on its way.
    void close(std::optional<uint16_t> code);
    void enqueueControl(ControlItem item);

    bool isOpen() const;
    int64_t droppedFrames() const;
    size_t queuedAudioBytes() const;
    double lastInbound() const;

  private:
    void flushLocked();
    void dropLocked();
    bool hasPendingOutputLocked() const;
    // False ends the connection.
    bool handleFrame(uint8_t opcode, bool fin, std::string payload, int64_t receivedUs);

    void wakeLocked();
    // The close frame that answers a client breaking the protocol.
    void queueClose(uint16_t code);

    const int64_t id_;
    int fd_;
    int wake_ = -1;  // an eventfd: a producer left output the socket would not take
    bool pollingForOutput_ = false;
    const Limits limits_;
    mutable std::mutex lock_;
    bool isOpen_ = true;
    std::deque<ControlItem> control_;
    std::deque<std::string> audio_;
    size_t audioBytes_ = 0;
    std::string inFlight_;
    size_t inFlightWritten_ = 0;
    int64_t droppedFrames_ = 0;
    double lastInbound_ = 0;
    TextHandler onText_;

    // Reassembly, touched only by the connection's own thread.
    std::string message_;
    uint8_t messageOpcode_ = 0;
    bool inMessage_ = false;  // fragments of a message have come, its last not yet
};

}  // namespace vt::net
