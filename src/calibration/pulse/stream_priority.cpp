#include "calibration/pulse/stream_priority.h"

#include <cstdio>
#include <string>

#include "platform/pulse/pulse_loop.h"
#include "platform/realtime/realtime_scheduling.h"

namespace vt::calibration {

namespace {
// The engine's stream threads' priority: above every ordinary thread, below
// the sound server's own.
constexpr int kStreamThreadPriority = 5;
}  // namespace

void raiseStreamPriority(platform::pulse::PulseLoop& loop) {
    platform::pulse::PulseLoop::Lock lock(loop);
    pa_mainloop_api_once(
        pa_threaded_mainloop_get_api(loop.loop()),
        [](pa_mainloop_api*, void*) {
            platform::raiseCurrentThread(platform::systemRealtimeMethods(), kStreamThreadPriority,
                                         [](const std::string& line) {
                                             std::fprintf(stderr, "Vellatone: %s\n", line.c_str());
                                         });
        },
        nullptr);
}

}  // namespace vt::calibration
