// The windowed application: Qt's event loop as the model's main queue, the
// same wiring as the headless program, the QML window, the tray icon and,
// when a test asks for it, the automation hook.
#pragma once

namespace vt::ui {

// `login`: the session's autostart opened us, so with the tray on the
// window stays closed.
int runWindow(int argc, char** argv, bool login);

}  // namespace vt::ui
