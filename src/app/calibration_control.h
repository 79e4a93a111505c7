// Measurements on the local control socket (never on the phone's wire):
//   {"type":"calibration.run","slot":S,"reference":R,
//    "method":"microphone"|"reported","apply":bool}
// answers, once the measurement has ended,
//   {"type":"calibration.done","slot":S,"ms":X,"applied":bool}
//   {"type":"calibration.failed","why":SENTENCE}
// Without "apply" the row is left as it was. Main thread only.
#pragma once

#include <nlohmann/json.hpp>

#include "app/control_server.h"
#include "dispatch/main_queue.h"
#include "model/app_model.h"

namespace vt::app {

void handleCalibrationLine(model::AppModel& model, dispatch::MainQueue& main,
                           const nlohmann::json& line, const ControlServer::Reply& reply);

}  // namespace vt::app
