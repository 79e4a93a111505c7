// vellatone: the application. With no argument it opens the window (and the
// tray icon); --headless runs the same application without one.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "app/app_runtime.h"
#include "app/headless.h"
#ifdef VELLATONE_WITH_WINDOW
#include "ui/window/window_app.h"
#endif

namespace {

constexpr const char* kUsage =
    "usage: vellatone [--headless | --login]\n"
    "  With no argument, opens the window (and a tray icon where the desktop has a\n"
    "  tray). --headless runs Vellatone without a window until SIGINT or SIGTERM.\n"
    "  --login is what the autostart entry passes: with the tray icon on, Vellatone\n"
    "  then starts in the tray with its window closed.\n"
    "  Either way it can be controlled with vellatonectl over the socket\n"
    "  $XDG_RUNTIME_DIR/vellatone/control.sock (VELLATONE_CONTROL_SOCKET overrides the\n"
    "  path). Guests' phones join on port 7766. For tests: VELLATONE_GUEST_BIND names\n"
    "  the address to listen on, VELLATONE_GUEST_PORT another port (0: any free one;\n"
    "  the line \"vellatone: guest server on port N\" says which), and\n"
    "  VELLATONE_AUTOMATION_SOCKET opens the window's automation hook at that path.\n";

bool hasDisplay() {
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"})
        if (const char* v = std::getenv(name); v && *v) return true;
    // A platform chosen outright (offscreen, for instance) needs no display.
    const char* platform = std::getenv("QT_QPA_PLATFORM");
    return platform && *platform && std::strncmp(platform, "xcb", 3) != 0 &&
           std::strncmp(platform, "wayland", 7) != 0;
}

}  // namespace

int main(int argc, char** argv) {
    bool headless = false, login = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--headless") == 0) {
            headless = true;
        } else if (std::strcmp(argv[i], "--login") == 0) {
            // The autostart entry passes this: the session opened us.
            login = true;
        } else if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::fputs(kUsage, stdout);
            return 0;
        } else {
            std::fprintf(stderr, "vellatone: unknown argument %s\n%s", argv[i], kUsage);
            return 2;
        }
    }
    try {
        if (headless) return vt::app::runHeadless();
#ifdef VELLATONE_WITH_WINDOW
        if (!hasDisplay()) {
            std::fputs(
                "vellatone: there is no display to open the window on (neither DISPLAY "
                "nor WAYLAND_DISPLAY is set); run vellatone --headless instead.\n",
                stderr);
            return 2;
        }
        return vt::ui::runWindow(argc, argv, login);
#else
        (void)login;
        (void)hasDisplay;
        std::fputs("vellatone: this build has no window; run vellatone --headless.\n", stderr);
        return 2;
#endif
    } catch (const std::exception& e) {
        vt::app::say(std::string("vellatone: ") + e.what());
        return 1;
    }
}
