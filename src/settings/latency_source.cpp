#include "settings/latency_source.h"

#include <array>
#include <utility>

namespace vt::settings {

namespace {
constexpr std::array<std::pair<LatencySource, std::string_view>, 5> kRaw{{
    {LatencySource::none, "none"},
    {LatencySource::reported, "reported"},
    {LatencySource::tapped, "tapped"},
    {LatencySource::narrowed, "narrowed"},
    {LatencySource::heard, "heard"},
}};
}  // namespace

std::string_view rawValue(LatencySource source) {
    for (const auto& [s, raw] : kRaw)
        if (s == source) return raw;
    return "none";
}

LatencySource latencySourceFromRaw(std::string_view raw) {
    for (const auto& [s, r] : kRaw)
        if (r == raw) return s;
    return LatencySource::none;
}

bool isMeasuredByPerson(LatencySource source) {
    return source == LatencySource::tapped || source == LatencySource::narrowed ||
           source == LatencySource::heard;
}

}  // namespace vt::settings
