#include "devices/sound_server.h"

#include <unistd.h>

namespace vt::devices {

SoundServerKind soundServerKind(const std::string& serverName, bool pipewirePulse) {
    if (serverName.find("PipeWire") != std::string::npos) return SoundServerKind::pipeWire;
    if (!serverName.empty()) return SoundServerKind::pulseAudio;
    return pipewirePulse ? SoundServerKind::pipeWire : SoundServerKind::pulseAudio;
}

bool pipewirePulseInstalled() {
    for (const char* path : {"/usr/bin/pipewire-pulse", "/usr/local/bin/pipewire-pulse"})
        if (::access(path, X_OK) == 0) return true;
    return false;
}

const char* soundServerWord(SoundServerKind kind) {
    return kind == SoundServerKind::pipeWire ? "PipeWire" : "PulseAudio";
}

const char* soundServerStartCommand(SoundServerKind kind) {
    return kind == SoundServerKind::pipeWire
               ? "systemctl --user restart pipewire pipewire-pulse wireplumber"
               : "pulseaudio --start";
}

}  // namespace vt::devices
