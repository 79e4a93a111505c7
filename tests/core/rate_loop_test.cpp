// The timed rate loop against a device whose clock is not the capture's: the
// slot must sit on its place, not trail it by the drift, and a small delay
// change must be walked there quickly without a crossfade.
#include <gtest/gtest.h>

#include <cmath>

#include "core/rate_loop.h"
#include "engine_fixture.h"

namespace {

constexpr double kT0 = 100.0;
constexpr uint32_t kCaptureBlock = 240;  // 5 ms
constexpr double kAheadSec = 0.030;      // the device asks this long before it plays

// Runs capture and one 44.1 kHz device on a virtual host clock.
class DriftingDevice : public ::testing::Test {
  protected:
    void SetUp() override {
        re_engine_set_gain(e.get(), 0, 1.0f);
        re_engine_set_base_ratio(e.get(), 0, 48000.0 / 44100.0);
        for (int i = 0; i < 40; ++i) capture();
    }
    void capture() {
        const double f = written(e.get());
        re_engine_note_capture(e.get(), re_engine_frames_written(e.get()), kCaptureBlock,
                               kT0 + f / RE_RATE, -1.0);
        write_ramp(e.get(), kCaptureBlock);
    }
    // Runs for `seconds` of host time; calls `each` after every device block.
    template <class F>
    void run(double seconds, F each) {
        const double end = now + seconds;
        while (now < end) {
            const double capture_due = kT0 + written(e.get()) / RE_RATE;
            const double device_due = present - kAheadSec;
            if (capture_due <= device_due) {
                now = capture_due;
                capture();
                continue;
            }
            now = device_due;
            render(e.get(), 0, device_block, present, now);
            present += device_block / (44100.0 * (1.0 + device_ppm * 1e-6));
            each();
        }
    }
    double err_ms() const { return re_engine_fill_err_ms(e.get(), 0); }

    engine_ptr e = make_engine();
    re_slot* s = &e->slots[0];
    double now = kT0 + 40 * kCaptureBlock / RE_RATE;
    double present = now + kAheadSec;
    double device_ppm = 60.0;  // a null sink pacing itself in whole microseconds
    uint32_t device_block = 441;
};

TEST_F(DriftingDevice, HoldsItsPlaceWithinFiftyMicrosecondsOnceSettled) {
    run(3.0, [] {});
    double worst = 0;
    run(60.0, [&] { worst = std::max(worst, std::fabs(err_ms())); });
    EXPECT_LT(worst, 0.05);
    EXPECT_NEAR(re_engine_ppm(e.get(), 0), -60.0, 5.0) << "the integrator carries the drift";
}

TEST_F(DriftingDevice, DriftThatChangesIsFollowed) {
    run(3.0, [] {});
    device_ppm = -150.0;
    double worst = 0;
    run(2.0, [] {});
    run(20.0, [&] { worst = std::max(worst, std::fabs(err_ms())); });
    EXPECT_LT(worst, 0.05);
}

TEST_F(DriftingDevice, OneMillisecondDelayChangeIsWalkedWithinTwoSeconds) {
    run(3.0, [] {});
    re_engine_set_delay_ms(e.get(), 0, 1.0);
    double at_two = 1e9;
    bool faded = false;
    double t = 0;
    run(3.0, [&] {
        t += device_block / 44100.0;
        faded |= s->fade_left != 0;
        if (t >= 2.0 && at_two == 1e9) at_two = err_ms();
    });
    EXPECT_FALSE(faded) << "a glide, not a crossfade";
    EXPECT_LT(std::fabs(at_two), 0.1);
    EXPECT_LT(std::fabs(err_ms()), 0.02);
    EXPECT_LE(std::fabs(re_engine_ppm(e.get(), 0) + 60.0), RE_TIMED_GAINS.fine_limit_ppm);
}

TEST(RateLoop, IntegratorStandsStillWhileLimitedOrGliding) {
    double integral = 0.0;
    // 10 frames: 750 ppm, within the fine limit; the integrator moves.
    EXPECT_NEAR(re_rate_correction(&integral, 10.0, 0.01, RE_TIMED_GAINS), 750e-6, 1e-12);
    EXPECT_NEAR(integral, 10.0 * 83e-6 * 0.01, 1e-15);
    const double held = integral;
    // 50 frames: limited to 1000 ppm; 200 frames: a glide at up to 5000 ppm.
    EXPECT_NEAR(re_rate_correction(&integral, 50.0, 0.01, RE_TIMED_GAINS), 1000e-6, 1e-12);
    EXPECT_NEAR(re_rate_correction(&integral, -200.0, 0.01, RE_TIMED_GAINS), -5000e-6, 1e-12);
    EXPECT_EQ(integral, held);
}

}  // namespace
