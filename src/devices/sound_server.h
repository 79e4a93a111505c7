// Which sound server the desktop uses, and the words and command for it.
#pragma once

#include <string>

namespace vt::devices {

enum class SoundServerKind { pulseAudio, pipeWire };

// From the name the server gives itself ("PulseAudio (on PipeWire 0.3.65)"
// is PipeWire). Before any server has answered, the name is empty: then
// PipeWire if its PulseAudio service is installed (what Debian, Fedora and
// Ubuntu desktops run now), else PulseAudio.
SoundServerKind soundServerKind(const std::string& serverName, bool pipewirePulseInstalled);
bool pipewirePulseInstalled();

// "PipeWire" or "PulseAudio".
const char* soundServerWord(SoundServerKind kind);
// What a person types in a terminal to (re)start that server.
const char* soundServerStartCommand(SoundServerKind kind);

}  // namespace vt::devices
