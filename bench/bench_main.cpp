#include <cstdio>

#include "render_speed.h"
#include "resampler_snr.h"

int main() {
    constexpr double kRatio441 = 48000.0 / 44100.0;
    constexpr double kSeconds = 0.6;

    const double plain = measure_slot_realtimes({1.0, false, kSeconds});
    std::printf("render taps=64 eq=off: %.1f slot-realtimes/core\n", plain);
    const double eq = measure_slot_realtimes({1.0, true, kSeconds});
    std::printf("render taps=64 eq=on: %.1f slot-realtimes/core\n", eq);
    const double long_table = measure_slot_realtimes({kRatio441, true, kSeconds});
    std::printf("render taps=140 eq=on: %.1f slot-realtimes/core\n", long_table);

    // 147 output frames take exactly 160 ring frames at 48000/44100.
    std::printf("resampler ratio=48000/44100: %.1f dB SNR\n", measure_snr_db(kRatio441, 147));
    std::printf("resampler ratio=1: %.1f dB SNR\n", measure_snr_db(1.0, 512));
    return 0;
}
