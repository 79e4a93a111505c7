// The speed correction that walks a slot's read position onto its target:
// one proportional-integral loop for both render paths, each with its own
// gains. Errors are in ring frames, times in seconds of ring audio, and the
// result is a fraction of the nominal speed (1e-6 is one ppm).
#pragma once

#include "core/ring_engine.h"

struct re_rate_gains {
    double proportional_ppm_per_frame;  // speed per frame of error
    double integral_ppm_per_frame_sec;  // speed added per frame of error and second
    double fine_limit_ppm;              // the most the loop steers within the fine band
    double coarse_limit_ppm;            // the most it steers beyond it (a glide)
};

// Within this error the integrator runs and the speed stays inside the fine
// limit; beyond it the loop glides by proportion alone.
inline constexpr double RE_FINE_BAND_FRAMES = 96.0;

// The timed path's error is the distance to a time-derived position, smooth to
// a fraction of a frame: a loop of about 2 rad/s, damped at 0.9, settles a
// clock drift or a 1 ms step in well under two seconds, and 1000 ppm (under 2
// cents) is still no audible change of pitch.
inline constexpr re_rate_gains RE_TIMED_GAINS{75.0, 83.0, 1000.0, 5000.0};

// The fill-based path's error is the ring's fill, which moves by a whole
// capture block at every write: its loop is slow enough to ignore that.
inline constexpr re_rate_gains RE_FILL_GAINS{2.0, 0.09375, 200.0, 5000.0};

// Updates `integral` (a speed fraction) and returns the speed correction for
// a block covering `seconds` of ring audio. The integrator stands still while
// the result is limited or the error is beyond the fine band, so that a glide
// never winds it up.
inline double re_rate_correction(double* integral, double err_frames, double seconds,
                                 const re_rate_gains& g) {
    const bool fine = err_frames <= RE_FINE_BAND_FRAMES && err_frames >= -RE_FINE_BAND_FRAMES;
    const double limit = (fine ? g.fine_limit_ppm : g.coarse_limit_ppm) * 1e-6;
    const double u = *integral + err_frames * g.proportional_ppm_per_frame * 1e-6;
    const double c = u < -limit ? -limit : (u > limit ? limit : u);
    if (fine && c == u) *integral += err_frames * g.integral_ppm_per_frame_sec * 1e-6 * seconds;
    return c;
}
