#include "ui/bridge/app_controller.h"

namespace vt::ui {

AppController::AppController(model::AppModel& model, QObject* parent)
    : QObject(parent), model_(model) {}

}  // namespace vt::ui
