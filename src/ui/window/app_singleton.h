// `App` in QML: the one AppController, declared as a singleton of module
// Vellatone so that every file of the module sees it without an import.
#pragma once

#include <QtQml/qqml.h>
#include <QJSEngine>
#include <QObject>

#include "ui/bridge/app_controller.h"

namespace vt::ui {

struct AppSingleton {
    Q_GADGET
    QML_FOREIGN(vt::ui::AppController)
    QML_NAMED_ELEMENT(App)
    QML_SINGLETON

  public:
    // Set before the first QML file that uses App is loaded.
    static inline AppController* instance = nullptr;

    static AppController* create(QQmlEngine*, QJSEngine*) {
        // The window's code owns it, not the engine.
        QJSEngine::setObjectOwnership(instance, QJSEngine::CppOwnership);
        return instance;
    }
};

}  // namespace vt::ui
