// Who applies the system volume, and the rule for seeding a row's latency
// from what a device reports.
#pragma once

#include <optional>

namespace vt::devices {

// The system volume is the default sink's volume: while we run, the capture
// sink's, which is what the desktop's slider and the volume keys move (it
// starts as a copy of the speaker's it replaced). The sound server applies
// it, by its own law, to everything played into the capture sink before the
// monitor we record from, so what we capture is already at that volume.
//
// This is the one place that decides it: the engine never applies the system
// volume a second time, and never by another law than the server's. A
// speaker's own volume (a row's volume, which stands in for it) is applied by
// the server on that speaker. So a speaker at 100 % hears exactly what the
// default sink played before Start, at every volume.
namespace SystemVolume {
// The gain the engine adds for the system volume: none for the monitor of the
// capture sink (`tap` false); with a tap, which would hear programs untouched,
// the server's own gain for the volume (`linear`, from the server's law).
double engineGain(bool tap, double linear);
}  // namespace SystemVolume

namespace ReportedLatency {
inline constexpr double worthCorrectingMs = 2.0;
// What a row's measured latency should become after the device reported
// `reportedMs`, or nothing for no change. A person's measurement and a delay
// set by hand are never overruled.
std::optional<double> seeded(std::optional<double> reportedMs, double currentMs,
                             bool currentIsReported, bool measuredByPerson, double userDelayMs);
}  // namespace ReportedLatency

}  // namespace vt::devices
