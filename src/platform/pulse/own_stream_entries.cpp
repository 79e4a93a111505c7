#include "platform/pulse/own_stream_entries.h"

#include <pulse/ext-stream-restore.h>

#include "platform/pulse/pulse_convert.h"

namespace vt::platform::pulse {

namespace {

// pipewire-pulse's names for what WirePlumber keeps by application id.
std::string pipewireEntryName(const std::string& device, bool playback) {
    return std::string(playback ? "sink-input-by-application-id:"
                                : "source-output-by-application-id:") +
           ownStreamKey(device);
}

class ClearingOnClose final : public Stream {
  public:
    ClearingOnClose(std::unique_ptr<Stream> stream, std::shared_ptr<PulseLoop> control,
                    std::string device, bool playback, bool pipewire)
        : stream_(std::move(stream)),
          control_(std::move(control)),
          device_(std::move(device)),
          playback_(playback),
          pipewire_(pipewire) {}
    ~ClearingOnClose() override {
        stream_.reset();
        if (control_ && control_->ready() && !control_->inLoopThread())
            clearOwnStreamEntry(*control_, device_, playback_, pipewire_);
    }
    double sampleRate() const override { return stream_->sampleRate(); }
    uint64_t underruns() const override { return stream_->underruns(); }

  private:
    std::unique_ptr<Stream> stream_;
    std::shared_ptr<PulseLoop> control_;
    std::string device_;
    bool playback_;
    bool pipewire_;
};

}  // namespace

void clearOwnStreamEntry(PulseLoop& control, const std::string& device, bool playback,
                         bool pipewire) {
    PulseLoop::Lock lock(control);
    if (!pipewire) {
        const std::string key = ownStreamKey(device);
        const char* names[] = {key.c_str(), nullptr};
        control.finish(pa_ext_stream_restore_delete(control.context(), names, nullptr, nullptr));
        return;
    }
    const std::string name = pipewireEntryName(device, playback);
    pa_ext_stream_restore_info entries[2]{};
    for (pa_ext_stream_restore_info& e : entries) {
        e.name = name.c_str();
        pa_channel_map_init_stereo(&e.channel_map);
    }
    pa_cvolume_set(&entries[0].volume, 2, PA_VOLUME_MUTED);
    entries[0].mute = 1;
    pa_cvolume_set(&entries[1].volume, 2, PA_VOLUME_NORM);
    control.finish(pa_ext_stream_restore_write(control.context(), PA_UPDATE_REPLACE, entries, 2, 0,
                                               nullptr, nullptr));
}

std::unique_ptr<Stream> clearingEntryOnClose(std::unique_ptr<Stream> stream,
                                             std::shared_ptr<PulseLoop> control,
                                             const std::string& device, bool playback,
                                             bool pipewire) {
    if (!stream) return stream;
    return std::make_unique<ClearingOnClose>(std::move(stream), std::move(control), device,
                                             playback, pipewire);
}

}  // namespace vt::platform::pulse
