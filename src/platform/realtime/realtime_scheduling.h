// Real-time scheduling for an audio thread, the way desktop audio programs get
// it: from RealtimeKit over the system bus where it runs (an ordinary user is
// refused sched_setscheduler), else by asking the kernel directly (enough for
// root or a user with an rtprio limit), else not at all. The process says
// once in its log which of the three it got.
#pragma once

#include <functional>
#include <string>

namespace vt::platform {

enum class RealtimeGrant { realtimeKit, scheduler, none };

// "RealtimeKit", "sched_setscheduler", "none".
const char* realtimeGrantWord(RealtimeGrant grant);

// The two ways of asking, for the calling thread at `priority` (1..99); each
// gives true when granted, else false and why. Tests put in their own.
struct RealtimeMethods {
    std::function<bool(int priority, std::string& why)> realtimeKit;
    std::function<bool(int priority, std::string& why)> scheduler;
};

// RealtimeKit on the system bus (DBUS_SYSTEM_BUS_ADDRESS or the usual
// socket), then sched_setscheduler with SCHED_FIFO.
RealtimeMethods systemRealtimeMethods();

// Raises the calling thread, trying the methods in order. The first call in
// the process hands `log` one line saying what it got (and why the others
// failed); later calls log nothing.
RealtimeGrant raiseCurrentThread(const RealtimeMethods& methods, int priority,
                                 const std::function<void(const std::string&)>& log);

// For tests: the next call logs again.
void resetRealtimeLogOnce();

}  // namespace vt::platform
