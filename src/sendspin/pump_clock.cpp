#include "sendspin/pump_clock.h"

#include <cerrno>
#include <cmath>
#include <ctime>

#include "net/monotonic.h"

namespace vt::sendspin {

double MonotonicPumpClock::nowSeconds() {
    return net::monotonicSeconds();
}

int64_t MonotonicPumpClock::nowUs() {
    return net::monotonicUs();
}

void MonotonicPumpClock::sleepFor(double seconds) {
    if (!(seconds > 0)) return;
    timespec request{};
    request.tv_sec = static_cast<time_t>(seconds);
    request.tv_nsec = static_cast<long>((seconds - std::floor(seconds)) * 1e9);
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &request, &request) == EINTR) {
    }
}

}  // namespace vt::sendspin
