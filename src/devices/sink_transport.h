// Which transport code a sink stands for, from what the sound server says
// about it: its module, its bus and API, its form factor, its port and
// profile names.
#pragma once

#include <string>

#include "platform/audio_backend.h"

namespace vt::devices {

std::string transportCode(const platform::SinkInfo& sink);

}  // namespace vt::devices
