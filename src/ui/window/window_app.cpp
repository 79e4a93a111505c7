#include "ui/window/window_app.h"

#include <QtQml/qqmlextensionplugin.h>
#include <QApplication>
#include <QMessageBox>
#include <QQmlApplicationEngine>
#include <QQmlContext>
#include <QQuickStyle>
#include <QQuickWindow>
#include <cstdlib>
#include <memory>
#include <string>

#include "app/app_runtime.h"
#include "ui/automation/automation_server.h"
#include "ui/bridge/app_controller.h"
#include "ui/queue/qt_main_queue.h"
#include "ui/tray/app_icon.h"
#include "ui/tray/tray_icon.h"
#include "ui/window/app_singleton.h"

Q_IMPORT_QML_PLUGIN(VellatonePlugin)
#ifdef VELLATONE_HAVE_SHEETS
Q_IMPORT_QML_PLUGIN(Vellatone_SheetsPlugin)
#endif
#ifdef VELLATONE_HAVE_VISUALISER
#include "ui/visualiser/frame_timer.h"
Q_IMPORT_QML_PLUGIN(Vellatone_VisualiserPlugin)
#endif

namespace vt::ui {

namespace {

#ifdef VELLATONE_HAVE_SHEETS
constexpr bool kHaveSheets = true;
#else
constexpr bool kHaveSheets = false;
#endif
#ifdef VELLATONE_HAVE_VISUALISER
constexpr bool kHaveVisualiser = true;
#else
constexpr bool kHaveVisualiser = false;
#endif

// Closing the window keeps the application in the tray while the tray shows;
// otherwise the last window closed is the end.
class CloseWatcher : public QObject {
  public:
    CloseWatcher(AppController& app, const TrayIcon* tray) : app_(app), tray_(tray) {}

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() == QEvent::Close &&
            !(tray_ && tray_->isVisible() && app_.showInMenuBar()))
            QMetaObject::invokeMethod(qApp, &QCoreApplication::quit, Qt::QueuedConnection);
        return QObject::eventFilter(watched, event);
    }

  private:
    AppController& app_;
    const TrayIcon* tray_;
};

}  // namespace

int runWindow(int argc, char** argv, bool login) {
    QApplication::setApplicationName("Vellatone");
    QApplication::setApplicationDisplayName("Vellatone");
    QApplication::setDesktopFileName("vellatone");
    // The look is ours: no outside style configuration applies.
    QQuickStyle::setStyle("Fusion");
    QApplication application(argc, argv);
    application.setWindowIcon(appIcon());
    application.setQuitOnLastWindowClosed(false);

    QtMainQueue queue;
    app::AppRuntime runtime(queue);
    if (!runtime.soundServerReachable()) {
        const std::vector<std::string> lines = app::AppRuntime::noSoundServerLines();
        for (const std::string& line : lines) app::say(line);
        QMessageBox::critical(nullptr, "Vellatone",
                              QString::fromStdString(lines.front().substr(11)));
        return 1;
    }
    if (auto problem = runtime.start([] { QCoreApplication::quit(); })) {
        app::say("vellatone: " + *problem);
        return 1;
    }
    QObject::connect(&application, &QCoreApplication::aboutToQuit, [&] { runtime.shutDown(); });

    AppController controller(runtime.model());
    controller.setModules(kHaveSheets, kHaveVisualiser);
    runtime.setOnChange([&] { controller.refresh(); });
    // Control clients hear of what the window did at once.
    QObject::connect(&controller, &AppController::changed, [&] { runtime.publish(); });

    AppSingleton::instance = &controller;
    QQmlApplicationEngine engine;
    engine.addImportPath(QStringLiteral("qrc:/qt/qml"));
    engine.addImportPath(QStringLiteral("qrc:/"));
    engine.load(QUrl(QStringLiteral("qrc:/qt/qml/Vellatone/Main.qml")));
    QQuickWindow* window = nullptr;
    for (QObject* root : engine.rootObjects())
        if ((window = qobject_cast<QQuickWindow*>(root))) break;
    if (!window) {
        app::say("vellatone: the window could not be made.");
        return 1;
    }
#ifdef VELLATONE_HAVE_VISUALISER
    visualiser::attachFrameTimer(window);  // only with VELLATONE_FRAME_LOG set
#endif

    auto showWindow = [window] {
        window->show();
        window->raise();
        window->requestActivate();
    };
    std::unique_ptr<TrayIcon> tray;
    if (TrayIcon::available())
        tray = std::make_unique<TrayIcon>(controller, showWindow, [] { QCoreApplication::quit(); });
    CloseWatcher closeWatcher(controller, tray.get());
    window->installEventFilter(&closeWatcher);

    std::unique_ptr<AutomationServer> automation;
    if (const char* path = std::getenv("VELLATONE_AUTOMATION_SOCKET"); path && *path) {
        automation = std::make_unique<AutomationServer>(engine, controller);
        QString why;
        if (!automation->listen(QString::fromLocal8Bit(path), &why)) {
            app::say("vellatone: the automation socket cannot be opened: " + why.toStdString());
            return 1;
        }
        app::say(std::string("vellatone: automation socket ") + path);
    }

    // Opened by the session at login with the tray on: the tray alone.
    if (!(login && tray && controller.showInMenuBar())) showWindow();
    app::say("vellatone: window open. Control socket: " + runtime.controlSocket());
    const int status = application.exec();
    window->removeEventFilter(&closeWatcher);
    runtime.setOnChange(nullptr);
    return status;
}

}  // namespace vt::ui
