// vellatone --headless: the model on an event loop, driven through the local
// control socket, until SIGINT or SIGTERM, which stop the engine and give the
// default sink back before the process ends.
#include <string>

#include "app/app_runtime.h"
#include "app/headless.h"
#include "dispatch/event_loop.h"

namespace vt::app {

int runHeadless() {
    dispatch::EventLoop loop;
    AppRuntime runtime(loop);
    if (!runtime.soundServerReachable()) {
        for (const std::string& line : AppRuntime::noSoundServerLines()) say(line);
        return 1;
    }
    if (auto problem = runtime.start([&] { loop.quit(); })) {
        say("vellatone: " + *problem);
        return problem->starts_with("VELLATONE_") ? 2 : 1;
    }
    say("vellatone: running headless, no window. Control socket: " + runtime.controlSocket());
    loop.run();
    return 0;
}

}  // namespace vt::app
