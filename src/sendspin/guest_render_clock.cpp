#include "sendspin/guest_render_clock.h"

#include <cmath>

namespace vt::sendspin::GuestSpeaker {

int64_t playoutStartUs(double heardAt, double offset, double headroomMs) {
    return static_cast<int64_t>(std::llround((heardAt + offset) * 1e6)) -
           static_cast<int64_t>(headroomMs * 1000);
}

}  // namespace vt::sendspin::GuestSpeaker
