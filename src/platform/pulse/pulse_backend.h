// The sound server through libpulse (PulseAudio, or PipeWire through
// pipewire-pulse). A mirror of sinks, other programs' streams and the
// default sink is kept current by the server's change events; writes wait
// for the server's answer; our streams run on a connection of their own.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "platform/audio_backend.h"

namespace vt::platform::pulse {
class PulseLoop;
}

namespace vt::platform {

class PulseBackend final : public AudioBackend {
  public:
    // Connects to the default server (honours PULSE_SERVER); connected() is
    // false when there is none. Never starts a server.
    PulseBackend();
    ~PulseBackend() override;
    PulseBackend(const PulseBackend&) = delete;
    PulseBackend& operator=(const PulseBackend&) = delete;

    bool connected() const override;
    bool reconnect() override;
    std::string serverName() const override;
    double volumeToLinear(double scalar) const override;
    double volumeFromLinear(double linear) const override;
    std::vector<SinkInfo> sinks() override;
    std::optional<SinkInfo> sinkByName(const std::string& name) override;
    std::optional<SinkInfo> sinkById(DeviceId id) override;
    std::optional<std::string> defaultSinkName() override;
    std::vector<SinkInputInfo> sinkInputs() override;

    // Writes must not be made from the change handler's thread (they would
    // wait on themselves); they return false there.
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

  private:
    struct Callbacks;
    friend struct Callbacks;

    // Connects both loops and fills the mirror; false when no server answers.
    bool attach();
    void detach();
    void forgetServer();  // on the control loop's thread, when it is lost
    std::shared_ptr<pulse::PulseLoop> control() const;
    std::shared_ptr<pulse::PulseLoop> audio() const;
    std::shared_ptr<pulse::PulseLoop> captureLoop() const;
    bool canWrite(const std::shared_ptr<pulse::PulseLoop>& control) const;
    // Under the control loop's lock.
    void refreshSink(pulse::PulseLoop& control, const std::string& name);
    void notify(ChangeKind kind);

    // Replaced as a whole when the server comes back; every user takes its
    // own reference first, so a loop lives until the last one lets go.
    mutable std::mutex loopsMutex_;
    std::shared_ptr<pulse::PulseLoop> control_;
    std::shared_ptr<pulse::PulseLoop> audio_;
    std::shared_ptr<pulse::PulseLoop> capture_;
    std::mutex reconnectMutex_;

    mutable std::mutex mirrorMutex_;
    std::map<uint32_t, SinkInfo> sinks_;
    std::map<uint32_t, SinkInputInfo> inputs_;
    std::map<uint32_t, uint8_t> inputChannels_;
    std::optional<std::string> defaultSink_;
    std::set<uint32_t> ourModules_;
    std::string serverName_;

    std::mutex handlerMutex_;
    std::function<void(ChangeKind)> handler_;
};

}  // namespace vt::platform
