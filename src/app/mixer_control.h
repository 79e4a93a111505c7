// The app mixer on the local control socket (never on the phone's wire):
//   {"type":"mixer.apps"}                      -> {"type":"mixer.apps","apps":[...]}
//   {"type":"mixer.level","id":ID,"level":0..1}
//   {"type":"mixer.mute","id":ID,"on":bool}
//   {"type":"mixer.solo","id":ID|null}
// Each edit answers {"type":"mixer.done"} or {"type":"mixer.refused","why":...}.
// Main thread only.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "model/app_model.h"

namespace vt::app {

std::string handleMixerLine(model::AppModel& model, const nlohmann::json& line);

}  // namespace vt::app
