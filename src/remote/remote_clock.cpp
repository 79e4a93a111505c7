#include "remote/remote_clock.h"

#include "dispatch/clock.h"

namespace vt::remote {

double RemoteClock::now() {
    return seconds(dispatch::monotonicNanos());
}

}  // namespace vt::remote
