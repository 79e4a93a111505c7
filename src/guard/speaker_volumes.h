// The speakers' own volumes, kept in the settings next to the sink to give
// back ("pendingRestoreVolumes", sink name -> slider position 0..1) for as
// long as a row's volume stands in for them. A run that dies leaves them
// there; the next launch puts each present speaker back (giveBackAll).
//
// Main thread only.
#pragma once

#include <map>
#include <string>

#include "engine/speaker_volume_store.h"
#include "platform/audio_backend.h"
#include "settings/settings.h"

namespace vt::guard {

class SpeakerVolumes final : public engine::SpeakerVolumeStore {
  public:
    static constexpr const char* settingsKey = "pendingRestoreVolumes";

    explicit SpeakerVolumes(settings::Settings& settings);

    double keep(const std::string& sink, double current) override;
    void givenBack(const std::string& sink) override;

    // Sink name -> volume still to be given back; entries that are not a
    // number in 0..max are left out.
    std::map<std::string, double> pending() const;
    // Sets every kept speaker that is present back to its volume and forgets
    // it; speakers not present stay kept for a later launch.
    void giveBackAll(platform::AudioBackend& backend);

  private:
    void write(const std::map<std::string, double>& volumes);

    settings::Settings& settings_;
};

}  // namespace vt::guard
