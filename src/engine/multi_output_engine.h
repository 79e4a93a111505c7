// The class around the ring engine that deals with the sound server: the one
// capture (the monitor of our own null sink), the playback stream of each
// device-backed slot, the rates and volumes of those sinks, and the pull
// interface of the network senders.
//
// Everything here runs on the main queue's thread, except prepareAirPlaySlot
// and renderAirPlay (any thread, a sender's pump) and the stream opens, which
// run on the open queue and report back to the main queue. The backend and
// both queues must outlive the engine.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/ring_engine.h"
#include "core/stream_callbacks.h"
#include "devices/device_monitor.h"
#include "dispatch/main_queue.h"
#include "engine/engine_error.h"
#include "engine/pump_timeline.h"
#include "engine/speaker_volume_store.h"
#include "equaliser/eq_settings.h"
#include "platform/audio_backend.h"

namespace vt::engine {

enum class CaptureKind { tap, input };
const char* captureKindRaw(CaptureKind kind);

class MultiOutputEngine {
  public:
    static constexpr int maxOutputs = 20;
    static constexpr int maxRegularOutputs = 8;
    static constexpr int maxGuests = 12;

    // The capture sink the engine makes (or finds) and records from.
    static constexpr const char* kCaptureSinkName = "vellatone";
    static constexpr const char* kCaptureSinkDescription = "Vellatone";
    static constexpr const char* kCaptureSourceName = "vellatone.monitor";
    static constexpr uint32_t kCaptureRate = 48000;

    struct Telemetry {
        double ppm = 0;
        double fillErrMs = 0;
        uint64_t underruns = 0;      // times the server found the slot's stream empty
        uint64_t starvedFrames = 0;  // silence rendered for want of captured audio
    };
    struct Peak {
        float left = 0;
        float right = 0;
    };
    struct RecentSamples {
        std::vector<float> samples;
        uint64_t endFrame = 0;
    };

    MultiOutputEngine(platform::AudioBackend& backend, dispatch::MainQueue& mainQueue,
                      dispatch::WorkQueue& openQueue);
    ~MultiOutputEngine();
    MultiOutputEngine(const MultiOutputEngine&) = delete;
    MultiOutputEngine& operator=(const MultiOutputEngine&) = delete;

    // Where speakers' own volumes are kept while rows' volumes stand in for
    // them; without one they are kept in memory only. Must outlive the engine.
    void setSpeakerVolumeStore(SpeakerVolumeStore* store) { volumeStore_ = store; }

    // Throws EngineError.
    void start();
    void stop();
    bool isRunning() const { return running_; }
    CaptureKind captureKind() const { return captureKind_; }

    // Throws EngineError (deviceNotFound) when the engine runs and the sink
    // is not there; the slot keeps the UID and opens when it appears.
    void setOutputDevice(int slot, std::optional<std::string> uid);
    // Call on the main thread when the server's list of sinks may have
    // changed: slots whose sink went away close, slots whose sink came back
    // open again.
    void handleDeviceListChange();
    // What the engine's own listener runs on the main thread while it runs,
    // when sink properties may have changed: the rates of open slots and the
    // capture sink's volume and rate.
    void handleSinkChange();

    void setDelayMs(int slot, double ms);
    void setVolume(int slot, double volume);
    void setMuted(int slot, bool muted);
    void setMasterVolume(double volume);
    void setMix(int slot, double ll, double lr, double rl, double rr);
    void setTestGain(int slot, double gain);
    void setEQ(int slot, const equaliser::EQSettings& settings);
    void setMasterEQ(const equaliser::EQSettings& settings);
    bool takeEQClip(int slot);
    bool takeMasterEQClip();

    Telemetry telemetry(int slot) const;
    double lateMs(int slot) const;
    bool isOpening(int slot) const;
    bool isOpen(int slot) const;
    std::optional<std::string> outputDeviceUID(int slot) const;
    Peak takePeak(int slot);
    double hardwareGain(int slot) const;
    double rowGain(int slot) const;
    double outputRate(int slot) const;
    float masterGain() const { return masterGain_; }

    void fillCaptureEnvelope(std::span<float> into, double spanSeconds) const;
    void fillRecentSamples(std::span<float> into, double delaySeconds) const;
    RecentSamples recentSamples(size_t count) const;
    uint64_t framesWritten() const;
    std::optional<double> hostSeconds(double frame) const;
    std::optional<double> presentationLeadSeconds(int slot) const;

    // No process taps here: the capture is the sink's monitor, so the list is
    // only kept.
    void excludeFromCapture(std::vector<uint32_t> processes);
    const std::vector<uint32_t>& captureExclusions() const { return captureExclusions_; }

    // Any thread.
    void prepareAirPlaySlot(int slot, double rate);
    // A sender's pump thread: interleaved stereo at the slot's rate.
    void renderAirPlay(int slot, float* into, uint32_t frames);
    // The same on a given clock reading (tests drive the timeline with it).
    void renderAirPlayAt(int slot, float* into, uint32_t frames, double nowSec);

    // The ring engine, for measuring tools and tests.
    re_engine* ringEngine() const;

    std::function<void(int slot, bool open)> onSlotStateChanged;
    std::function<void(int slot, int status)> onSlotFailed;
    std::function<void(double rate)> onCaptureRateChanged;

  private:
    struct Contexts;
    struct Alive;
    struct HardwareGain {
        platform::DeviceId device;
        double volume;
        float gain;
    };
    struct OpenCompletion;

    static bool validSlot(int slot) { return slot >= 0 && slot < maxOutputs; }

    void openOutput(int slot);
    void finishOpen(int slot, uint64_t token, const std::string& uid,
                    std::shared_ptr<OpenCompletion> done);
    void openFailed(int slot, uint64_t token, int status);
    void commitOpen(int slot, platform::DeviceId device, std::unique_ptr<platform::Stream> stream);
    void closeOutput(int slot);
    void releaseDevice(int slot);
    void recheckRate(int slot, uint64_t token, platform::DeviceId device);
    void applyRate(int slot, double rate);
    void pushVolume(int slot);
    void pushVolume(int slot, platform::DeviceId device);
    double linearVolume(platform::DeviceId device, double scalar);
    void refreshMasterGain();
    void checkCaptureRate();
    bool holdsDeviceElsewhere(int slot, platform::DeviceId device) const;
    void startCapture();
    void stopCapture();

    platform::AudioBackend& backend_;
    dispatch::MainQueue& main_;
    dispatch::WorkQueue& openQueue_;
    std::shared_ptr<Contexts> ctx_;
    std::shared_ptr<Alive> alive_;

    std::unique_ptr<platform::Stream> captureStream_;
    std::optional<uint32_t> captureModule_;  // set when we loaded the sink
    platform::DeviceId captureDevice_ = platform::kNoDevice;
    platform::DeviceId inputSourceDevice_ = platform::kNoDevice;
    bool watchingCapture_ = false;
    std::unique_ptr<devices::ChangeHop> sinkWatch_;

    std::array<platform::DeviceId, maxOutputs> outputDevices_;
    std::array<std::unique_ptr<platform::Stream>, maxOutputs> outputStreams_;
    std::array<std::optional<std::string>, maxOutputs> configuredUIDs_;
    std::array<std::atomic<double>, maxOutputs> nominalRates_;
    std::array<double, maxOutputs> volumes_;
    std::array<bool, maxOutputs> mutes_{};
    std::array<bool, maxOutputs> hasHardwareVolume_{};
    std::array<std::optional<HardwareGain>, maxOutputs> hardwareGains_;
    std::array<std::optional<double>, maxOutputs> savedDeviceVolumes_;
    SpeakerVolumeStore* volumeStore_ = nullptr;
    std::array<bool, maxOutputs> rateListeners_{};
    std::array<std::unique_ptr<dispatch::TimerHandle>, maxOutputs> rateRechecks_;
    std::array<uint64_t, maxOutputs> openTokens_{};
    std::array<bool, maxOutputs> opening_{};

    float masterGain_ = 1.0f;
    float appMasterGain_ = 1.0f;
    bool running_ = false;
    CaptureKind captureKind_ = CaptureKind::input;
    std::vector<uint32_t> captureExclusions_;

    std::mutex pumpLock_;
    std::array<PumpTimeline, maxOutputs> pumpTimelines_;
};

}  // namespace vt::engine
