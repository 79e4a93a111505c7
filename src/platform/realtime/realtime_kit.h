// The RealtimeKit client: one blocking round of calls on the system bus.
#pragma once

#include <string>

namespace vt::platform {

// Asks org.freedesktop.RealtimeKit1 to make the calling thread SCHED_RR at
// `priority`, or at the most the daemon allows. RealtimeKit requires the
// process to cap its CPU time at real-time priority (RLIMIT_RTTIME), so
// that is set first. False with the reason when there is no bus, no daemon,
// or a refusal.
bool makeThreadRealtimeViaRealtimeKit(int priority, std::string& why);

}  // namespace vt::platform
