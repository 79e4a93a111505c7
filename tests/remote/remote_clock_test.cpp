#include "remote/remote_clock.h"

#include <gtest/gtest.h>

#include "dispatch/clock.h"

namespace vt::remote {
namespace {

TEST(RemoteClock, IsTheHostClockInSeconds) {
    EXPECT_DOUBLE_EQ(RemoteClock::seconds(1'500'000'000), 1.5);
    const double before = dispatch::monotonicSeconds();
    const double now = RemoteClock::now();
    const double after = dispatch::monotonicSeconds();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

}  // namespace
}  // namespace vt::remote
