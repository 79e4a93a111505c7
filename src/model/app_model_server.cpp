// The sound server going away and coming back while the program runs.
#include "devices/audio_devices.h"
#include "model/app_model.h"

namespace vt::model {

void AppModel::watchSoundServer() {
    soundServer_.onLost = [this] { soundServerLost(); };
    soundServer_.onBack = [this] { soundServerBack(); };
    soundServer_.start();
}

std::optional<double> AppModel::soundServerAwaySeconds() const {
    if (!soundServer_.lostAt()) return std::nullopt;
    return main_.now() - *soundServer_.lostAt();
}

devices::SoundServerKind AppModel::soundServerKind() const {
    return devices::soundServerKind(backend_.serverName(), devices::pipewirePulseInstalled());
}

std::string AppModel::soundServerStartCommand() const {
    return devices::soundServerStartCommand(soundServerKind());
}

void AppModel::soundServerLost() {
    refreshCaptureAvailable();
    if (!isRunning_) return;
    // Everything we had on the server went with it: our streams, the capture
    // sink, the other programs' streams we had moved. The switch stays on.
    if (guestParty_) guestParty_->pause();
    engine_->stop();
    restorer_.serverLost();
    stopTelemetry();
    stateChanged();
}

void AppModel::soundServerBack() {
    outputDevices_ = devices::AudioDevices::outputs(backend_);
    refreshCaptureAvailable();
    if (isRunning_) {
        try {
            restorer_.prepareCaptureSink();
            engine_->start();
            restorer_.takeOutput();
        } catch (const std::exception& e) {
            engine_->stop();
            restorer_.restore();
            isRunning_ = false;
            startError_ = e.what();
            refreshCaptureAvailable();
            stateChanged();
            return;
        }
        if (guestParty_) guestParty_->play();
        startTelemetry();
    }
    stateChanged();
}

}  // namespace vt::model
