// The sound server as the rest of the program sees it: sinks (the outputs a
// person can pick), the default sink, other programs' streams, sink volumes,
// loading the capture sink, change notifications, and streams that drive the
// core's device callbacks.
//
// Two implementations: platform/pulse (libpulse, works on PulseAudio and on
// PipeWire through pipewire-pulse) and platform/fake (scripted, for unit
// tests with a virtual clock).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vt::platform {

// Sink index as the server numbers it. Stable only while the sink exists;
// the sink name is the lasting identity (a device's UID).
using DeviceId = uint32_t;
inline constexpr DeviceId kNoDevice = UINT32_MAX;

struct SinkInfo {
    DeviceId id = kNoDevice;
    std::string name;         // UID
    std::string description;  // shown name
    uint32_t channels = 0;
    double sampleRate = 0;
    // Properties the server reports: device.bus, device.api,
    // device.form_factor, device.class, factory names, ...
    std::map<std::string, std::string> properties;
    std::string activePort;             // active port name, empty if none
    std::string activeProfile;          // card profile name, empty if unknown
    std::string driver;                 // module / driver name ("module-null-sink.c", ...)
    std::string monitorSource;          // "<name>.monitor" on PulseAudio; empty if none
    uint32_t ownerModule = UINT32_MAX;  // the module that made the sink, if any
    bool loadedByUs = false;            // made by this backend's loadNullSink
    double latencyMs = 0;               // sink latency, falling back to configured latency
    bool hasVolume = true;              // the sink's volume can be set
    double volumeScalar = 1.0;  // average volume as a slider position 0..1 (PA_VOLUME_NORM = 1)
    double volumeLinear = 1.0;  // the same as a linear gain
    bool muted = false;
};

// A stream of another program (a sink input).
struct SinkInputInfo {
    uint32_t index = UINT32_MAX;
    DeviceId sink = kNoDevice;
    std::map<std::string, std::string> properties;  // application.name, application.process.id, ...
    bool ours = false;                              // carries our marker property; never moved
    double volumeLinear = 1.0;
    bool muted = false;
};

// `connection`: the server went away, or we reached it again.
enum class ChangeKind { sinks, server, sinkInputs, connection };

// What a record stream hands over on its real-time thread: `count` frames of
// interleaved float32 stereo (null for a hole the server left), the host time
// in seconds at which the first of them was played into the source's sink (0
// when unknown), and the stream's own count of frames before them.
using CaptureCallback = void (*)(void* clientData, const float* frames, uint32_t count,
                                 double hostSec, double streamFrame);
// What a playback stream asks for on its real-time thread: fill `count` frames
// of interleaved float32 stereo, whose first frame is heard at host time
// `presentSec` in seconds (0 when unknown) and sits at `streamFrame` in the
// stream (which jumps forward when the stream had to skip). Returns false
// when it has nothing to play there yet, only silence for want of audio: the
// stream then writes nothing until the next request and lets the server play
// its own silence, rather than queue a buffer of ours ahead of the audio.
using PlaybackCallback = bool (*)(void* clientData, float* frames, uint32_t count,
                                  double presentSec, double streamFrame);

// A running stream. Destroying it stops it; after the destructor returns the
// callback is never called again, so its client data may be reused.
class Stream {
  public:
    virtual ~Stream() = default;
    // The rate the stream really runs at.
    virtual double sampleRate() const = 0;
    // Times the server ran out of our audio (playback); 0 where unknown.
    virtual uint64_t underruns() const { return 0; }
};

struct StreamResult {
    std::unique_ptr<Stream> stream;
    int status = 0;  // 0 on success, else the server's error code
    std::string error;
};

class AudioBackend {
  public:
    virtual ~AudioBackend() = default;

    // False when no sound server could be reached, or it has gone away.
    // Everything the server had (sinks, streams, our modules) went with it.
    virtual bool connected() const = 0;
    // Tries once to reach the server again, when it is not connected; true
    // when it is connected afterwards. Announced as ChangeKind::connection.
    // Never from the change handler's thread.
    virtual bool reconnect() = 0;
    // What the server says it is ("pulseaudio", "PulseAudio (on PipeWire
    // 0.3.65)"), kept from the last time it answered; empty before that.
    virtual std::string serverName() const = 0;

    // The server's volume law, slider position (PA_VOLUME_NORM = 1) to
    // linear gain and back.
    virtual double volumeToLinear(double scalar) const = 0;
    virtual double volumeFromLinear(double linear) const = 0;

    // Queries answer from the backend's mirror of the server's state and may be
    // called from any thread that is not a real-time one. Empty when unknown.
    virtual std::vector<SinkInfo> sinks() = 0;
    virtual std::optional<SinkInfo> sinkByName(const std::string& name) = 0;
    virtual std::optional<SinkInfo> sinkById(DeviceId id) = 0;
    virtual std::optional<std::string> defaultSinkName() = 0;
    virtual std::vector<SinkInputInfo> sinkInputs() = 0;

    // Writes wait for the server's answer; true on success.
    virtual bool setDefaultSink(const std::string& name) = 0;
    virtual bool setSinkVolume(DeviceId id, double scalar) = 0;
    virtual bool moveSinkInput(uint32_t index, const std::string& sinkName) = 0;
    virtual bool setSinkInputVolume(uint32_t index, double linear) = 0;

    // Loads module-null-sink with these arguments; the module index, or nothing.
    virtual std::optional<uint32_t> loadNullSink(const std::string& name,
                                                 const std::string& description, uint32_t rate,
                                                 uint32_t channels, bool float32) = 0;
    virtual bool unloadModule(uint32_t index) = 0;

    // Called on the backend's own thread after the mirror has been updated;
    // receivers hop to their own queue before acting.
    virtual void setChangeHandler(std::function<void(ChangeKind)> handler) = 0;

    // Further receivers of the same events (the device monitor, the latency
    // watcher, ...), called just like the handler. A listener may still be
    // running when removeChangeListener returns: hop to a queue and check
    // there whether the receiver still wants it.
    uint64_t addChangeListener(std::function<void(ChangeKind)> listener) {
        std::lock_guard lock(listenersMutex_);
        uint64_t id = nextListener_++;
        listeners_[id] =
            std::make_shared<const std::function<void(ChangeKind)>>(std::move(listener));
        return id;
    }
    void removeChangeListener(uint64_t id) {
        std::lock_guard lock(listenersMutex_);
        listeners_.erase(id);
    }

    // Opens a record stream on a source (for the capture, "<sink>.monitor"),
    // float32 stereo at `rate`, and calls `callback` with each block.
    virtual StreamResult openCapture(const std::string& sourceName, uint32_t rate,
                                     CaptureCallback callback, void* clientData) = 0;

    // Opens a playback stream on a sink, float32 stereo, never moved by the
    // server. `rate` 0 means the sink's own rate, which is what the engine
    // wants: the server must not resample. The backend calls `callback` for
    // every block it wants.
    virtual StreamResult openPlayback(const std::string& sinkName, uint32_t rate,
                                      PlaybackCallback callback, void* clientData) = 0;

  protected:
    // Implementations call this, besides their handler, after each update.
    void notifyChangeListeners(ChangeKind kind) {
        std::vector<std::shared_ptr<const std::function<void(ChangeKind)>>> copy;
        {
            std::lock_guard lock(listenersMutex_);
            for (const auto& [id, l] : listeners_) copy.push_back(l);
        }
        for (const auto& l : copy) (*l)(kind);
    }

  private:
    std::mutex listenersMutex_;
    std::map<uint64_t, std::shared_ptr<const std::function<void(ChangeKind)>>> listeners_;
    uint64_t nextListener_ = 1;
};

// The property that marks our own streams, so that taking the default sink
// never moves them.
inline constexpr const char* kOwnStreamProperty = "vellatone.stream";
// The property that marks the sinks we make (the capture sink), so that a
// later run finds a leftover by what we gave it, whatever driver name the
// server reports.
inline constexpr const char* kOwnSinkProperty = "vellatone.sink";

}  // namespace vt::platform
