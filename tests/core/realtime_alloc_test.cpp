// Writing, both render paths with both equalisers busy, the scopes and the
// device callbacks must never touch the heap once the tables exist.
#include <gtest/gtest.h>

#include "core/stream_callbacks.h"
#include "counting_allocator.h"
#include "engine_fixture.h"

namespace {

TEST(RealTime, NoHeapOnAnyRealTimePath) {
    auto e = make_engine();
    for (int32_t s : {0, 1, 2}) {
        re_engine_set_gain(e.get(), s, 1.0f);
        re_engine_set_test_gain(e.get(), s, 0.5f);
        for (int b = 0; b < RE_EQ_BANDS; ++b) {
            re_engine_set_eq_band(e.get(), s, b, RE_EQ_PEAK, 100.0 * (b + 1), 3.0, 1.0);
            re_engine_set_master_eq_band(e.get(), b, RE_EQ_HIGH_SHELF, 5000.0, -2.0, 0.7);
        }
        re_engine_set_eq_enabled(e.get(), s, true);
    }
    re_engine_set_master_eq_enabled(e.get(), true);
    re_engine_set_base_ratio(e.get(), 1, 48000.0 / 44100.0);

    auto in = std::make_unique<re_input_ctx>(re_input_ctx{e.get()});
    auto out = std::make_unique<re_output_ctx>(re_output_ctx{e.get(), 2});
    std::vector<float> capture(2 * 512, 0.25f);
    std::vector<float> device(2 * 512);
    std::vector<float> scratch(2 * 512);
    auto eq = std::make_unique<re_eq>();
    re_eq_publish_band(eq.get(), 0, RE_EQ_PEAK, 1000.0, 6.0, 1.0);
    re_eq_publish_enabled(eq.get(), true);

    const double t0 = re_engine_host_now_sec(e.get());
    auto block = [&](int i) {
        const double t = t0 + i * 512 / RE_RATE;
        re_capture_block(in.get(), capture.data(), 512, t, i * 512.0);
        re_engine_render(e.get(), 0, scratch.data(), 512);
        // Slot 1 alternates between stamped and coasting blocks.
        re_engine_render_at_host(e.get(), 1, scratch.data(), 470, i % 3 ? t + 0.02 : 0.0, t);
        re_playback_block(out.get(), device.data(), 512, t + 0.02, i * 512.0);
        re_engine_envelope(e.get(), scratch.data(), 256, 64);
        re_engine_recent(e.get(), scratch.data(), 256, 100);
        re_eq_update(eq.get(), 44100.0);
        re_eq_apply(eq.get(), &scratch[0], &scratch[1]);
        re_engine_take_peak(e.get(), 0, &scratch[0], &scratch[1]);
        re_engine_take_master_eq_clip(e.get());
    };
    for (int i = 0; i < 40; ++i) block(i);
    heap_counting_start();
    for (int i = 40; i < 140; ++i) {
        if (i == 60) re_engine_set_delay_ms(e.get(), 0, 50.0);  // a crossfade
        if (i == 80) re_engine_reset_reader(e.get(), 1);
        if (i == 100) re_engine_reset(e.get());
        block(i);
    }
    EXPECT_EQ(heap_counting_stop(), 0);
    EXPECT_EQ(re_engine_primed(e.get(), 0), 1);
    EXPECT_EQ(re_engine_timed(e.get(), 2), 1);
}

}  // namespace
