#include "guard/speaker_volumes.h"

#include <cmath>

namespace vt::guard {

namespace {
// The servers allow boosting up to 150 % (PA_VOLUME_UI_MAX); anything beyond
// is not a volume someone set.
constexpr double kMaxKeptScalar = 1.5;
}  // namespace

SpeakerVolumes::SpeakerVolumes(settings::Settings& settings) : settings_(settings) {}

std::map<std::string, double> SpeakerVolumes::pending() const {
    std::map<std::string, double> out;
    const nlohmann::json stored = settings_.value(settingsKey);
    if (!stored.is_object()) return out;
    for (auto it = stored.begin(); it != stored.end(); ++it) {
        if (!it.value().is_number()) continue;
        const double v = it.value().get<double>();
        if (std::isfinite(v) && v >= 0 && v <= kMaxKeptScalar) out[it.key()] = v;
    }
    return out;
}

void SpeakerVolumes::write(const std::map<std::string, double>& volumes) {
    if (volumes.empty()) {
        settings_.removeValue(settingsKey);
        return;
    }
    nlohmann::json out = nlohmann::json::object();
    for (const auto& [sink, v] : volumes) out[sink] = v;
    settings_.setValue(settingsKey, out);
}

double SpeakerVolumes::keep(const std::string& sink, double current) {
    std::map<std::string, double> volumes = pending();
    if (auto it = volumes.find(sink); it != volumes.end()) return it->second;
    volumes[sink] = current;
    write(volumes);
    return current;
}

void SpeakerVolumes::givenBack(const std::string& sink) {
    std::map<std::string, double> volumes = pending();
    if (volumes.erase(sink) == 0) return;
    write(volumes);
}

void SpeakerVolumes::giveBackAll(platform::AudioBackend& backend) {
    std::map<std::string, double> volumes = pending();
    for (auto it = volumes.begin(); it != volumes.end();) {
        std::optional<platform::SinkInfo> sink = backend.sinkByName(it->first);
        if (sink && backend.setSinkVolume(sink->id, it->second))
            it = volumes.erase(it);
        else
            ++it;
    }
    write(volumes);
}

}  // namespace vt::guard
