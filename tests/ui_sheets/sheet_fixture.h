// The sheets' controllers on a model over the scripted sound server, with
// an offscreen Qt application for the clipboard and the timers.
#pragma once

#include <QGuiApplication>
#include <QtGlobal>
#include <memory>

#include "model_fixture.h"
#include "ui/bridge/app_controller.h"

namespace vt::ui::test {

class SheetTest : public model::test::ModelTest {
  protected:
    static void SetUpTestSuite() {
        if (QGuiApplication::instance()) return;
        qputenv("QT_QPA_PLATFORM", "offscreen");
        static int argc = 1;
        static char name[] = "ui_sheet_tests";
        static char* argv[] = {name, nullptr};
        // Never destroyed: Qt's own globals are gone by the time a static
        // would be, and its tear-down would then crash the exit.
        new QGuiApplication(argc, argv);
    }

    // The interface's handle on a model with rows for these sinks; model
    // changes of its own reach the handle as they do in the application.
    AppController& controllerWithRows(std::initializer_list<const char*> uids) {
        model::AppModel& m = withRows(uids);
        app = std::make_unique<AppController>(m);
        m.onStateChanged = [this] { emit app->changed(); };
        return *app;
    }

    void TearDown() override {
        if (model) model->onStateChanged = nullptr;
    }

    std::unique_ptr<AppController> app;
};

}  // namespace vt::ui::test
