// How a row's measured latency was found. Stored by its raw value.
#pragma once

#include <string_view>

namespace vt::settings {

enum class LatencySource { none, reported, tapped, narrowed, heard };

// "none", "reported", "tapped", "narrowed", "heard".
std::string_view rawValue(LatencySource source);
// Anything unknown reads as none.
LatencySource latencySourceFromRaw(std::string_view raw);
// Found by a person (tapping along, the narrowing search, listening): such a
// value is never overruled by what a device reports.
bool isMeasuredByPerson(LatencySource source);

}  // namespace vt::settings
