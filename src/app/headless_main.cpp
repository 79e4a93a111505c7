// vellatone: the application. For now it runs without a window
// (--headless): the model on an event loop, driven through the local
// control socket, until SIGINT or SIGTERM, which stop the engine and give the
// default sink back before the process ends.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "app/control_path.h"
#include "app/control_server.h"
#include "app/guest_root.h"
#include "app/notice_log.h"
#include "app/remote_bridge.h"
#include "dispatch/event_loop.h"
#include "dispatch/work_queues.h"
#include "guard/signal_watcher.h"
#include "model/app_model.h"
#include "model/notice_words.h"
#include "platform/pulse/pulse_backend.h"
#include "settings/debug_log_writer.h"
#include "settings/settings.h"

namespace {

constexpr const char* kUsage =
    "usage: vellatone --headless\n"
    "  Runs Vellatone without a window until SIGINT or SIGTERM. Control it with\n"
    "  vellatonectl over the socket $XDG_RUNTIME_DIR/vellatone/control.sock\n"
    "  (VELLATONE_CONTROL_SOCKET overrides the path). Guests' phones join on port\n"
    "  7766 (VELLATONE_GUEST_BIND names the address to listen on).\n";

void say(const std::string& line) {
    std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
}

int run() {
    using namespace vt;
    dispatch::EventLoop loop;
    platform::PulseBackend backend;
    if (!backend.connected()) {
        say("vellatone: no sound server is reachable (PulseAudio, or PipeWire with "
            "pipewire-pulse), so there is nothing to capture or play to. Start one, or use "
            "scripts/run.sh, which starts a private one.");
        model::AppNoticeFacts facts;
        facts.captureAvailable = false;
        for (const std::string& line : app::NoticeLog().newLines(model::applicationNotices(facts)))
            say(line);
        return 1;
    }
    settings::Settings settings;
    dispatch::ConcurrentQueue openQueue("vellatone.open", 2);
    model::AppModel model(backend, loop, openQueue, settings,
                          std::make_unique<settings::DebugLogWriter>());

    model::GuestSetup guests;
    guests.root = app::guestPageRoot();
    guests.options.computerName = app::computerName();
    // Tests keep the guest server on loopback.
    if (const char* bind = std::getenv("VELLATONE_GUEST_BIND"); bind && *bind) {
        guests.options.bindAddress = bind;
        guests.options.allowsLoopbackHost = true;
    }
    model.enableGuests(std::move(guests));

    app::RemoteBridge bridge(model, backend, app::computerName(), VELLATONE_VERSION);
    app::ControlServer server(
        loop, app::controlSocketPath(), [&] { return bridge.snapshot(); },
        [&](const remote::PhoneMessage& m) { return bridge.handle(m); });
    try {
        server.start();
    } catch (const std::exception& e) {
        say(std::string("vellatone: ") + e.what());
        model.shutDown();
        return 1;
    }

    guard::SignalWatcher signals(loop, [&](int signal) {
        say(std::string("vellatone: ") + (signal == SIGINT ? "SIGINT" : "SIGTERM") +
            ": stopping and giving the output back");
        model.shutDown();
        loop.quit();
    });

    model.onStateChanged = [&] { server.publish(false); };

    app::NoticeLog notices;
    std::string guestWords;
    auto logNotices = [&] {
        for (const std::string& line : notices.newLines(model.notices())) say(line);
        std::string words;
        if (model.guestServerError())
            words = "vellatone: " + *model.guestServerError();
        else if (model.guestLink())
            words = "vellatone: guests join at " + model.guestLink()->joinURL();
        if (!words.empty() && words != guestWords) say(guestWords = words);
    };
    auto noticeTimer = loop.repeat(0.1, logNotices);
    // Commands publish at once; this catches what changes on its own.
    auto stateTimer = loop.repeat(0.5, [&] { server.publish(false); });
    loop.post(logNotices);

    say("vellatone: running headless, no window. Control socket: " + server.path().string());
    loop.run();
    model.onStateChanged = nullptr;
    noticeTimer.reset();
    stateTimer.reset();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    bool headless = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--headless") == 0) {
            headless = true;
        } else if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::fputs(kUsage, stdout);
            return 0;
        } else {
            std::fprintf(stderr, "vellatone: unknown argument %s\n%s", argv[i], kUsage);
            return 2;
        }
    }
    if (!headless) {
        std::fprintf(stderr,
                     "vellatone: the window is not built yet; run it as vellatone --headless.\n");
        return 2;
    }
    try {
        return run();
    } catch (const std::exception& e) {
        say(std::string("vellatone: ") + e.what());
        return 1;
    }
}
