// How a volume slider becomes a gain, and the rule for seeding a row's
// latency from what a device reports.
#pragma once

#include <optional>

namespace vt::devices {

namespace MacVolumeCurve {
// The slider is heard as a square law: NaN or infinity give 0, else the
// position clamped to 0..1, squared.
double gain(double scalar);
// The gain the engine applies for the capture device's volume. With a tap
// the audio arrives untouched; through the capture sink it has already been
// scaled by the sink's own linear volume (`driverGain`), which is divided out.
double masterGain(double scalar, bool tap, double driverGain);
}  // namespace MacVolumeCurve

namespace ReportedLatency {
inline constexpr double worthCorrectingMs = 2.0;
// What a row's measured latency should become after the device reported
// `reportedMs`, or nothing for no change. A person's measurement and a delay
// set by hand are never overruled.
std::optional<double> seeded(std::optional<double> reportedMs, double currentMs,
                             bool currentIsReported, bool measuredByPerson, double userDelayMs);
}  // namespace ReportedLatency

}  // namespace vt::devices
