// vellatone-sheet-preview eq|master|invite [--dark] [--small] [--shot FILE]
//
// Shows one sheet over an empty window (the main window's usual or its
// smallest size), on a model with two outputs on the scripted sound server;
// with --shot it saves a picture after a moment and quits, which works on the
// offscreen platform too.
#include <stdlib.h>

#include <QtQml/qqmlextensionplugin.h>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlContext>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QTimer>
#include <cstdio>
#include <filesystem>
#include <string>

#include "dispatch/test_queues.h"
#include "dispatch/virtual_main_queue.h"
#include "equaliser/eq_preset.h"
#include "model/app_model.h"
#include "platform/fake/fake_audio_backend.h"
#include "settings/settings.h"
#include "ui/bridge/app_controller.h"

Q_IMPORT_QML_PLUGIN(Vellatone_SheetsPlugin)

namespace {

const char* windowQml = R"(
import QtQuick
import QtQuick.Controls
import Vellatone.Sheets

ApplicationWindow {
    id: win
    width: previewSmall ? 860 : 1080
    height: previewSmall ? 520 : 720
    visible: true
    title: "Sheet preview"
    readonly property bool dark: previewDark
    color: dark ? "#17191d" : "#f3f4f6"
    font.pixelSize: 13
    palette {
        window: dark ? "#17191d" : "#f3f4f6"
        windowText: dark ? "#e8eaed" : "#1d2026"
        base: dark ? "#212429" : "#ffffff"
        alternateBase: dark ? "#2a2e34" : "#f8f9fb"
        text: dark ? "#e8eaed" : "#1d2026"
        button: dark ? "#2a2e34" : "#f8f9fb"
        buttonText: dark ? "#e8eaed" : "#1d2026"
        highlight: dark ? "#6ea0ff" : "#2f6fe4"
        highlightedText: "#ffffff"
        placeholderText: dark ? "#9aa1ab" : "#646b76"
        mid: dark ? "#343941" : "#dde0e5"
        dark: dark ? "#343941" : "#dde0e5"
        light: dark ? "#212429" : "#ffffff"
        midlight: dark ? "#2a2e34" : "#f8f9fb"
    }

    EqualiserSheet {
        id: eqSheet
        app: previewApp
        slot: previewWhich === "master" ? -1 : 0
        onClosed: Qt.quit()
    }
    InvitationSheet {
        id: inviteSheet
        app: previewApp
        onClosed: Qt.quit()
    }
    Component.onCompleted: previewWhich === "invite" ? inviteSheet.open() : eqSheet.open()
}
)";

}  // namespace

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    // The window's own style and colours, so the sheets look as they will there.
    QQuickStyle::setStyle("Fusion");
    const QStringList args = app.arguments();
    const QString which = args.size() > 1 ? args[1] : QStringLiteral("eq");
    const bool dark = args.contains("--dark");
    const int shotAt = int(args.indexOf("--shot"));
    const QString shot = shotAt > 0 && shotAt + 1 < args.size() ? args[shotAt + 1] : QString();

    char tmpl[] = "/tmp/vt-sheet-preview-XXXXXX";
    const std::filesystem::path dir = mkdtemp(tmpl);
    vt::platform::FakeAudioBackend fake;
    fake.addSink("speakers", "Speakers");
    fake.addSink("living", "Living room", 48000);
    fake.setDefaultSinkByUser("speakers");
    vt::dispatch::VirtualMainQueue main;
    vt::dispatch::ImmediateWorkQueue work;
    vt::settings::Settings settings(dir / "settings.json");
    int code = 0;
    {
        vt::model::AppModel model(fake, main, work, settings);
        model.addOutput("speakers");
        model.addOutput("living");
        model.setEQ(0, vt::equaliser::EQPreset::find("night")->settings);
        vt::model::GuestSetup guests;
        guests.root = dir;
        guests.port = 0;
        guests.options.bindAddress = "127.0.0.1";
        model.enableGuests(guests);
        vt::ui::AppController controller(model);
        model.onStateChanged = [&controller] { emit controller.changed(); };

        // The scripted server's callbacks queue work for the model.
        QTimer drain;
        QObject::connect(&drain, &QTimer::timeout, [&main] { main.drain(); });
        drain.start(10);

        QQmlApplicationEngine engine;
        engine.addImportPath("qrc:/qt/qml");
        engine.rootContext()->setContextProperty("previewApp", &controller);
        engine.rootContext()->setContextProperty("previewWhich", which);
        engine.rootContext()->setContextProperty("previewDark", dark);
        engine.rootContext()->setContextProperty("previewSmall", args.contains("--small"));
        engine.loadData(windowQml);
        if (engine.rootObjects().isEmpty()) return 1;

        if (!shot.isEmpty()) {
            QTimer::singleShot(1200, [&] {
                auto* window = qobject_cast<QQuickWindow*>(engine.rootObjects().first());
                const bool saved = window && window->grabWindow().save(shot);
                std::fprintf(stderr, "%s %s\n", saved ? "saved" : "could not save",
                             qPrintable(shot));
                QGuiApplication::exit(saved ? 0 : 1);
            });
        }
        code = QGuiApplication::exec();
        model.onStateChanged = nullptr;
    }
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return code;
}
