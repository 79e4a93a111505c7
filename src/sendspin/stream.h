// One output's audio as timed Sendspin frames: a pump thread renders 10 ms a
// round and stamps each frame with the host time at which it should be played.
// Stamps come from counting frames, never from reading the clock each round, so
// they advance by exactly 10 ms; the clock only sets the pace.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "net/sendspin_transport.h"
#include "sendspin/pump_clock.h"

namespace vt::sendspin {

struct TrackInfo {
    std::string title;
    std::string artist;
    std::string album;
    std::optional<std::string> artworkPath;
};

class SendspinStream {
  public:
    // Fills `frames` interleaved stereo floats.
    using Render = std::function<void(float* into, size_t frames)>;
    // Turns an image file into a "data:" URL, or nothing.
    using ArtworkEncoder = std::function<std::optional<std::string>(const std::string& path)>;

    SendspinStream(net::SendspinTransport& transport, double leadMs, std::string threadName,
                   Render render, std::shared_ptr<PumpClock> clock = nullptr);
    ~SendspinStream();
    SendspinStream(const SendspinStream&) = delete;
    SendspinStream& operator=(const SendspinStream&) = delete;

    void begin(int64_t to);
    void stopPump();
    void setRender(Render render);
    void setMetadata(std::optional<TrackInfo> meta);
    void setArtworkEncoder(ArtworkEncoder encoder);
    void sendMetadata(int64_t to);
    std::optional<std::string> artworkDataURL(const std::optional<std::string>& path);

    // Answers a "client/time" through the connection's control queue, stamped
    // when it is written; false for any other text, which the caller handles.
    static bool answerClock(std::string_view text, int64_t from, int64_t receivedUs,
                            net::SendspinTransport& via);

    double leadMs() const { return leadMs_; }

  private:
    struct Exit {
        std::mutex lock;
        std::condition_variable done;
        bool signalled = false;
    };
    // Shared with the pump, which may outlive a stop that gave up waiting for it.
    struct State {
        std::mutex lock;
        Render render;
        std::optional<int64_t> target;
        int64_t epoch = 0;
        bool pumping = false;
        int64_t pumpRun = 0;
        std::shared_ptr<Exit> pumpExited;
        std::optional<TrackInfo> meta;
        std::optional<std::pair<std::string, std::optional<std::string>>> artworkCache;
        ArtworkEncoder artworkEncoder;
    };

    static void pump(std::shared_ptr<State> state, int64_t run, std::shared_ptr<Exit> exited,
                     net::SendspinTransport* transport, std::shared_ptr<PumpClock> clock,
                     int64_t leadUs);

    net::SendspinTransport& transport_;
    const double leadMs_;
    const std::string threadName_;
    const std::shared_ptr<PumpClock> clock_;
    const std::shared_ptr<State> state_;
};

}  // namespace vt::sendspin
