// A scripted sound server for unit tests. The test adds, changes and removes
// sinks and other programs' streams, fires change events, makes opens fail,
// and drives every stream by hand: it pushes capture blocks with the host time
// it chooses and pulls playback blocks for a presentation time it chooses, so
// an engine test runs seconds of audio on a virtual clock in microseconds.
//
// Thread-safe: the code under test may open and close streams on worker
// queues while the test drives them. A stream's callback is never running
// once its destructor has returned.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/audio_backend.h"

namespace vt::platform {

// The server's error codes the fake reports (PulseAudio's numbering).
inline constexpr int kFakeErrorNoEntity = 5;  // no such sink or source
inline constexpr int kFakeErrorRefused = 2;   // module refused, access denied

class FakeAudioBackend final : public AudioBackend {
  public:
    struct StreamInfo {
        uint64_t id = 0;
        bool capture = false;
        std::string device;  // sink name, or source name for a capture
        uint32_t requestedRate = 0;
        double rate = 0;
        uint64_t framesMoved = 0;
    };
    struct VolumeWrite {
        DeviceId sink = kNoDevice;
        double scalar = 0;
    };
    struct Move {
        uint32_t sinkInput = 0;
        std::string sink;
    };

    FakeAudioBackend();
    ~FakeAudioBackend() override;

    // --- Script: the server's state. Each change fires its change event when
    // auto-notify is on (the default); otherwise call fireChange().
    void setConnected(bool connected);
    // The server dies: the sinks we loaded, every stream and the default go
    // with it (other sinks stay scripted, as a server that comes back with
    // the same sinks); ChangeKind::connection and the rest are announced.
    // reconnect() fails until serverReturns().
    void serverDies();
    // The server answers again; the next reconnect() reaches it.
    void serverReturns();
    int reconnectAttempts() const;
    void setServerName(std::string name);
    // Adds or replaces (by name) a sink; returns its id. A sink without an id
    // gets the next free one, and a missing monitor source "<name>.monitor".
    DeviceId addSink(SinkInfo info);
    // Shorthand for an output sink with a description, rate and volume.
    DeviceId addSink(const std::string& name, const std::string& description, double rate = 48000,
                     std::map<std::string, std::string> properties = {});
    bool removeSink(const std::string& name);
    bool changeSink(const std::string& name, const std::function<void(SinkInfo&)>& change);
    bool setSinkRate(const std::string& name, double rate);
    bool setSinkLatencyMs(const std::string& name, double ms);
    // As if the user moved the slider: scalar 0..1, linear gain by the cube law.
    bool setSinkVolumeByUser(const std::string& name, double scalar);
    void setDefaultSinkByUser(std::optional<std::string> name);
    uint32_t addSinkInput(SinkInputInfo info);
    bool removeSinkInput(uint32_t index);

    void setAutoNotify(bool on);
    void fireChange(ChangeKind kind);

    // --- Script: failures.
    // Every open on this sink or source name fails with `status` until cleared;
    // the empty name matches every device.
    void failOpens(const std::string& device, int status);
    void clearOpenFailures();
    void failWrites(bool fail);
    void failLoadModule(bool fail);

    // --- Streams, driven by the test.
    std::vector<StreamInfo> streams() const;
    size_t playbackCount(const std::string& sinkName) const;
    bool hasCapture() const;
    uint64_t opensAttempted() const;
    // Calls the capture callback with one block of `frames` interleaved stereo
    // frames (silence if `interleaved` is null) whose first frame was captured
    // at `hostSec`. False if no capture stream is open.
    bool pushCapture(const float* interleaved, uint32_t frames, double hostSec,
                     std::optional<double> sampleTime = std::nullopt, bool hostTimeValid = true);
    // Calls the playback callback of the first stream on `sinkName` (or of the
    // stream `id`) for `frames` frames to be heard from `presentSec`; returns
    // the interleaved stereo block it wrote, or nothing if there is no stream.
    std::optional<std::vector<float>> pullPlayback(const std::string& sinkName, uint32_t frames,
                                                   double presentSec, bool hostTimeValid = true);
    std::optional<std::vector<float>> pullPlayback(uint64_t id, uint32_t frames, double presentSec,
                                                   bool hostTimeValid = true);

    // --- What the code under test wrote.
    std::vector<VolumeWrite> volumeWrites() const;
    std::vector<Move> moves() const;
    std::vector<std::string> defaultSinkWrites() const;
    // Module index -> sink name of the null sinks loaded through the interface.
    std::map<uint32_t, std::string> loadedModules() const;

    // --- AudioBackend.
    bool connected() const override;
    bool reconnect() override;
    std::string serverName() const override;
    // The cube law of PulseAudio's software volume.
    double volumeToLinear(double scalar) const override;
    double volumeFromLinear(double linear) const override;
    std::vector<SinkInfo> sinks() override;
    std::optional<SinkInfo> sinkByName(const std::string& name) override;
    std::optional<SinkInfo> sinkById(DeviceId id) override;
    std::optional<std::string> defaultSinkName() override;
    std::vector<SinkInputInfo> sinkInputs() override;
    bool setDefaultSink(const std::string& name) override;
    bool setSinkVolume(DeviceId id, double scalar) override;
    bool moveSinkInput(uint32_t index, const std::string& sinkName) override;
    bool setSinkInputVolume(uint32_t index, double linear) override;
    std::optional<uint32_t> loadNullSink(const std::string& name, const std::string& description,
                                         uint32_t rate, uint32_t channels, bool float32) override;
    bool unloadModule(uint32_t index) override;
    void setChangeHandler(std::function<void(ChangeKind)> handler) override;
    StreamResult openCapture(const std::string& sourceName, uint32_t rate, CaptureCallback proc,
                             void* clientData) override;
    StreamResult openPlayback(const std::string& sinkName, uint32_t rate, PlaybackCallback proc,
                              void* clientData) override;

    // Shared with the stream objects, which may outlive nothing but must not
    // touch a destroyed backend: they hold this, not the backend.
    struct Streams;

  private:
    void notify(ChangeKind kind);
    SinkInfo* findLocked(const std::string& name);
    std::optional<int> openFailureLocked(const std::string& device) const;

    mutable std::mutex mutex_;
    bool connected_ = true;
    bool reachable_ = true;
    int reconnectAttempts_ = 0;
    std::string serverName_ = "pulseaudio";
    std::vector<SinkInfo> sinks_;
    std::optional<std::string> defaultSink_;
    std::vector<SinkInputInfo> inputs_;
    DeviceId nextSinkId_ = 1;
    uint32_t nextInputIndex_ = 100;
    uint32_t nextModule_ = 20;
    bool autoNotify_ = true;
    bool failWrites_ = false;
    bool failLoad_ = false;
    std::map<std::string, int> openFailures_;
    uint64_t opensAttempted_ = 0;
    std::vector<VolumeWrite> volumeWrites_;
    std::vector<Move> moves_;
    std::vector<std::string> defaultWrites_;
    std::map<uint32_t, std::string> modules_;

    std::mutex handlerMutex_;
    std::function<void(ChangeKind)> handler_;

    std::shared_ptr<Streams> streams_;
};

}  // namespace vt::platform
