#include "render_speed.h"

#include <time.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

#include "core/eq_rt.h"
#include "core/ring_engine.h"

namespace {

double thread_cpu_sec() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

void enable_all_bands(re_engine* e, int32_t slot) {
    const double freqs[RE_EQ_BANDS] = {80, 250, 900, 2500, 6000, 12000};
    const double gains[RE_EQ_BANDS] = {3, -2, 1.5, -1, 2, -3};
    for (int b = 0; b < RE_EQ_BANDS; ++b) {
        re_engine_set_eq_band(e, slot, b, RE_EQ_PEAK, freqs[b], gains[b], 1.0);
        re_engine_set_master_eq_band(e, b, RE_EQ_PEAK, freqs[b] * 1.1, -gains[b], 0.8);
    }
    re_engine_set_eq_preamp_db(e, slot, -3.0);
    re_engine_set_eq_enabled(e, slot, true);
    re_engine_set_master_eq_enabled(e, true);
}

}  // namespace

double measure_slot_realtimes(const render_speed_case& c) {
    constexpr uint32_t kBlock = 512;
    constexpr uint32_t kSourceFrames = 1 << 16;
    constexpr int32_t kSlot = 0;

    re_engine* e = re_engine_create();
    if (e == nullptr) return 0.0;
    re_engine_set_base_ratio(e, kSlot, c.ratio);
    re_engine_set_gain(e, kSlot, 1.0f);
    if (c.eq) enable_all_bands(e, kSlot);

    // Noise at about -12 dBFS: every tap and band does real work.
    std::vector<float> source(2 * kSourceFrames);
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> dist(-0.25f, 0.25f);
    for (float& v : source) v = dist(rng);
    uint32_t source_pos = 0;
    auto write = [&](uint32_t frames) {
        while (frames > 0) {
            const uint32_t run = std::min(frames, kSourceFrames - source_pos);
            re_engine_write(e, source.data() + 2 * source_pos, run);
            source_pos = (source_pos + run) % kSourceFrames;
            frames -= run;
        }
    };
    write(48000);

    std::vector<float> out(2 * kBlock);
    double owed = 0.0;
    auto block = [&]() {
        owed += kBlock * c.ratio;
        const auto whole = static_cast<uint32_t>(owed);
        owed -= whole;
        write(whole);
        re_engine_render(e, kSlot, out.data(), kBlock);
    };
    for (int i = 0; i < 50; ++i) block();  // lock, settle, finish the glides

    uint64_t frames = 0;
    uint64_t silent_blocks = 0;
    const double start = thread_cpu_sec();
    double now = start;
    while (now - start < c.cpu_sec) {
        for (int i = 0; i < 16; ++i) {
            block();
            if (!re_engine_primed(e, kSlot)) ++silent_blocks;
            frames += kBlock;
        }
        now = thread_cpu_sec();
    }
    re_engine_destroy(e);
    if (silent_blocks != 0) {
        std::fprintf(stderr, "warning: %llu blocks rendered silence\n",
                     static_cast<unsigned long long>(silent_blocks));
    }
    return static_cast<double>(frames) / (now - start) / RE_RATE;
}
