#include "platform/realtime/realtime_scheduling.h"

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cstring>

#include "platform/realtime/realtime_kit.h"

namespace vt::platform {

namespace {

std::atomic<bool> gLogged{false};

bool viaScheduler(int priority, std::string& why) {
    sched_param param{};
    param.sched_priority = priority;
    // Children of an audio thread need not inherit its priority.
    const int rc = pthread_setschedparam(pthread_self(), SCHED_FIFO | SCHED_RESET_ON_FORK, &param);
    if (rc == 0) return true;
    why = std::strerror(rc);
    return false;
}

}  // namespace

const char* realtimeGrantWord(RealtimeGrant grant) {
    switch (grant) {
        case RealtimeGrant::realtimeKit:
            return "RealtimeKit";
        case RealtimeGrant::scheduler:
            return "sched_setscheduler";
        case RealtimeGrant::none:
            break;
    }
    return "none";
}

RealtimeMethods systemRealtimeMethods() {
    return {makeThreadRealtimeViaRealtimeKit, viaScheduler};
}

RealtimeGrant raiseCurrentThread(const RealtimeMethods& methods, int priority,
                                 const std::function<void(const std::string&)>& log) {
    std::string kitWhy = "not available";
    std::string schedWhy = "not available";
    RealtimeGrant grant = RealtimeGrant::none;
    if (methods.realtimeKit && methods.realtimeKit(priority, kitWhy)) {
        grant = RealtimeGrant::realtimeKit;
    } else if (methods.scheduler && methods.scheduler(priority, schedWhy)) {
        grant = RealtimeGrant::scheduler;
    }
    if (log && !gLogged.exchange(true)) {
        std::string line = "real-time scheduling for the audio thread: ";
        line += realtimeGrantWord(grant);
        if (grant != RealtimeGrant::realtimeKit) line += " (RealtimeKit: " + kitWhy + ")";
        if (grant == RealtimeGrant::none) line += " (sched_setscheduler: " + schedWhy + ")";
        log(line);
    }
    return grant;
}

void resetRealtimeLogOnce() {
    gLogged.store(false);
}

}  // namespace vt::platform
