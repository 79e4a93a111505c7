// A sound server with two speakers, one program playing on each, one of our
// own streams, and settings in a fresh folder.
#pragma once

#include <memory>

#include "platform/fake/fake_audio_backend.h"
#include "settings/settings.h"
#include "support/test_env.h"

namespace vt::guard::testing {

class GuardFixture {
  public:
    GuardFixture() {
        settings = std::make_unique<settings::Settings>(dir_ / "settings.json");
        speakers = backend.addSink("speakers", "Speakers");
        hdmi = backend.addSink("hdmi", "HDMI Screen");
        backend.setSinkVolumeByUser("speakers", 0.6);
        backend.setDefaultSinkByUser("speakers");
        player = addStream(speakers);
        video = addStream(hdmi);
        platform::SinkInputInfo mine;
        mine.sink = speakers;
        mine.ours = true;
        ours = backend.addSinkInput(mine);
    }

    uint32_t addStream(platform::DeviceId sink) {
        platform::SinkInputInfo in;
        in.sink = sink;
        return backend.addSinkInput(in);
    }
    platform::DeviceId sinkOf(uint32_t input) {
        for (const auto& in : backend.sinkInputs())
            if (in.index == input) return in.sink;
        return platform::kNoDevice;
    }
    platform::DeviceId idOf(const std::string& name) {
        auto s = backend.sinkByName(name);
        return s ? s->id : platform::kNoDevice;
    }
    // As a run that died while holding the output leaves things: the capture
    // sink still loaded, the default on it, and the streams with it.
    void leaveStranded(std::optional<std::string> pending) {
        backend.loadNullSink("vellatone", "Vellatone", 48000, 2, true);
        backend.setDefaultSinkByUser("vellatone");
        for (const auto& in : backend.sinkInputs())
            if (!in.ours) backend.moveSinkInput(in.index, "vellatone");
        settings->setPendingRestoreUID(pending);
    }

    vt::test::TempDir dir_;
    platform::FakeAudioBackend backend;
    std::unique_ptr<settings::Settings> settings;
    platform::DeviceId speakers = 0, hdmi = 0;
    uint32_t player = 0, video = 0, ours = 0;
};

}  // namespace vt::guard::testing
