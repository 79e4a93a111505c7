// How far ahead of real time Sendspin frames are stamped, for every receiver
// of the stream (guests' phones, a clock-synced TV).
#pragma once

namespace vt::sendspin {

inline constexpr double kDefaultLeadMs = 500.0;

// VELLATONE_SENDSPIN_LEAD_MS when it parses as a decimal number, else 500.
double configuredLeadMs();

}  // namespace vt::sendspin
