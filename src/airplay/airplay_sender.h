// One AirPlay output: a child process of the AirPlay tool that does RTSP,
// encryption and timing towards one receiver. The sender launches it, feeds
// it 16-bit PCM at 44.1 kHz on standard input from a pump thread, commands it
// through a named pipe, reads its status lines, and turns all of that into
// two callbacks on the main queue: a status, and the latency (how long after
// a frame leaves the engine it is heard on the receiver).
//
// Single-shot: construct, set the callbacks, start(), send() any number of
// times, stop(). A retry is a new sender.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "airplay/airplay_credential.h"
#include "airplay/airplay_status.h"
#include "airplay/child_process.h"
#include "airplay/status_table.h"
#include "discovery/airplay_receiver.h"
#include "dispatch/main_queue.h"

namespace vt::airplay {

class AirPlaySender {
  public:
    static constexpr int streamSampleRate = 44100;
    static constexpr int framesPerBlock = 441;  // 10 ms
    static constexpr double blockSeconds = 0.01;
    // A pump this far behind starts afresh from now instead of bursting.
    static constexpr double pumpResyncSeconds = 0.5;
    static constexpr int requestedLatencyMs = 350;
    static constexpr double startDeadlineSeconds = 6.0;
    static constexpr const char* nativeRoute = "airplay2";
    static constexpr const char* compatRoute = "airplay2-compat";
    // AirPlay 1 receivers speak RAOP, which neither AirPlay 2 route is.
    static constexpr const char* raopRoute = "raop";
    static constexpr const char* ptp = "ptp";
    static constexpr const char* ntp = "ntp";

    struct Metadata {
        std::string title, artist, album, itemID;
        std::optional<std::string> artworkFile;
        bool operator==(const Metadata&) const = default;
    };

    // Fills interleaved stereo floats; runs on the pump thread.
    using Render = std::function<void(float* into, uint32_t frames)>;

    struct Config {
        std::filesystem::path binary;
        discovery::AirPlayReceiver receiver;
        std::optional<std::string> password;
        // A PIN pairing's result: its id goes as --dacp instead of deviceID.
        std::optional<AirPlayCredential> credential;
        std::string deviceID;
        std::string timing = ptp;
        std::string route = nativeRoute;
        // The shared PTP daemon runs: a PTP sender uses it (--ptp-shared).
        bool ptpShared = false;
        Render render;
    };

    AirPlaySender(Config config, dispatch::MainQueue& main);
    virtual ~AirPlaySender();
    AirPlaySender(const AirPlaySender&) = delete;
    AirPlaySender& operator=(const AirPlaySender&) = delete;

    std::function<void(const AirPlayStatus&)> onStatus;
    std::function<void(double ms)> onLatency;

    // Virtual so that the supervisor's tests can stand in for the tool.
    virtual void start();
    // Ends the tool cleanly, at most about a second; safe to call twice.
    virtual void stop();
    virtual void send(const Metadata& meta);

    // "<host name> (Vellatone)", printable ASCII only, or "Vellatone".
    static std::string senderName();
    // The local IPv4 address that routes to `host`; no packet is sent.
    static std::optional<std::string> localAddress(const std::string& host);
    // The arguments, in the order the tool's contract gives them.
    std::vector<std::string> arguments(const std::string& cmdPipe) const;
    const Config& config() const { return config_; }

  private:
    void report(const AirPlayStatus& status);
    void readOutputs();
    void handleChunk(std::string_view lines);
    void act(const ChunkEffects& effects);
    void maybeStart(bool force);
    void writeCommand(const std::string& text);
    void publishLatency();
    void pump();
    void exited(int status, bool wasRunning);

    const Config config_;
    dispatch::MainQueue& main_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);

    std::mutex lock_;  // guards state_ and lastMeta_
    SenderState state_;
    std::optional<Metadata> lastMeta_;

    std::optional<ChildProcess> child_;
    std::atomic<bool> exited_{false};
    std::atomic<bool> stopRequested_{false};
    std::optional<std::string> cmdPipePath_;
    int cmdPipe_ = -1;
    std::thread reader_, pumpThread_;
    std::unique_ptr<dispatch::TimerHandle> deadline_;
    std::atomic<bool> pumping_{false};
};

std::string toString(AirPlayStatus::Kind kind);

}  // namespace vt::airplay
