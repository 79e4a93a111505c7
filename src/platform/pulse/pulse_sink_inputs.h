// Other programs' playback streams and their volumes, for the app mixer, on a
// connection of its own: a mirror of every sink input with its per-channel
// volume, kept by the server's change events, and volume writes that are sent
// and never waited for, so that a slider's drag never holds the main thread
// on the server.
#pragma once

#include <pulse/pulseaudio.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "mixer/app_streams.h"

namespace vt::platform::pulse {
class PulseLoop;
}

namespace vt::platform {

class PulseSinkInputs final : public mixer::AppStreams {
  public:
    // Connects at once; connected() tells whether a server answered.
    PulseSinkInputs();
    ~PulseSinkInputs() override;
    PulseSinkInputs(const PulseSinkInputs&) = delete;
    PulseSinkInputs& operator=(const PulseSinkInputs&) = delete;

    bool connected() const;
    // After the server went away: one try to reach it again. Waits only for
    // the connection itself.
    bool reconnect();

    void reconnectIfLost() override {
        if (!connected()) reconnect();
    }
    std::vector<mixer::AppStream> streams() override;
    void setVolume(uint32_t index, const std::vector<mixer::RawVolume>& volume) override;
    bool rememberVolume(const std::string& restoreKey,
                        const std::vector<mixer::RawVolume>& volume) override;
    void settle() override;
    void setChangeHandler(std::function<void()> handler) override;
    double toLinear(mixer::RawVolume v) const override;
    mixer::RawVolume fromLinear(double linear) const override;

  private:
    struct Callbacks;
    friend struct Callbacks;
    std::shared_ptr<pulse::PulseLoop> loop() const;
    void notify();

    mutable std::mutex loopMutex_;
    std::shared_ptr<pulse::PulseLoop> loop_;
    std::mutex mirrorMutex_;
    std::map<uint32_t, mixer::AppStream> streams_;
    std::mutex handlerMutex_;
    std::function<void()> handler_;
};

}  // namespace vt::platform
