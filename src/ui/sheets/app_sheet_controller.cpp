#include "ui/sheets/app_sheet_controller.h"

#include "model/app_model.h"
#include "ui/bridge/app_controller.h"

namespace vt::ui {

QObject* AppSheetController::app() const {
    return app_.data();
}

void AppSheetController::setApp(QObject* app) {
    auto* controller = qobject_cast<AppController*>(app);
    if (controller == app_) return;
    leavingApp();
    disconnect(changedConnection_);
    app_ = controller;
    if (app_)
        changedConnection_ = connect(app_, &AppController::changed, this, [this] { appUpdated(); });
    emit appChanged();
    appUpdated();
}

AppController* AppSheetController::appController() const {
    return app_.data();
}

model::AppModel* AppSheetController::model() const {
    return app_ ? &app_->model() : nullptr;
}

}  // namespace vt::ui
