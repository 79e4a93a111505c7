#include "platform/pulse/pulse_sink_inputs.h"

#include <algorithm>
#include <utility>

#include <pulse/ext-stream-restore.h>

#include "platform/audio_backend.h"
#include "platform/pulse/pulse_convert.h"
#include "platform/pulse/pulse_loop.h"

namespace vt::platform {

using pulse::PulseLoop;

struct PulseSinkInputs::Callbacks {
    static void subscription(pa_context* c, pa_subscription_event_type_t t, uint32_t index,
                             void* self) {
        auto* me = static_cast<PulseSinkInputs*>(self);
        if ((t & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) != PA_SUBSCRIPTION_EVENT_SINK_INPUT) return;
        if ((t & PA_SUBSCRIPTION_EVENT_TYPE_MASK) == PA_SUBSCRIPTION_EVENT_REMOVE) {
            {
                std::lock_guard lock(me->mirrorMutex_);
                me->streams_.erase(index);
            }
            me->notify();
            return;
        }
        if (pa_operation* op = pa_context_get_sink_input_info(c, index, &Callbacks::input, me))
            pa_operation_unref(op);
    }

    static void input(pa_context*, const pa_sink_input_info* info, int eol, void* self) {
        if (eol || !info) return;
        auto* me = static_cast<PulseSinkInputs*>(self);
        mixer::AppStream s;
        s.index = info->index;
        s.properties = pulse::propertiesOf(info->proplist);
        s.ours = s.properties.contains(kOwnStreamProperty);
        s.corked = info->corked != 0;
        for (uint8_t ch = 0; ch < info->volume.channels; ++ch)
            s.volume.push_back(info->volume.values[ch]);
        {
            std::lock_guard lock(me->mirrorMutex_);
            me->streams_[s.index] = std::move(s);
        }
        me->notify();
    }
};

PulseSinkInputs::PulseSinkInputs() {
    reconnect();
}

PulseSinkInputs::~PulseSinkInputs() {
    std::shared_ptr<PulseLoop> l;
    {
        std::lock_guard lock(loopMutex_);
        l = std::move(loop_);
    }
    if (l) {
        PulseLoop::Lock lock(*l);
        pa_context_set_subscribe_callback(l->context(), nullptr, nullptr);
        l->setOnLost(nullptr);
    }
}

std::shared_ptr<PulseLoop> PulseSinkInputs::loop() const {
    std::lock_guard lock(loopMutex_);
    return loop_;
}

bool PulseSinkInputs::connected() const {
    std::shared_ptr<PulseLoop> l = loop();
    return l && l->ready();
}

bool PulseSinkInputs::reconnect() {
    if (connected()) return true;
    std::shared_ptr<PulseLoop> l = PulseLoop::connect("Vellatone mixer");
    if (!l) return false;
    {
        PulseLoop::Lock lock(*l);
        l->setOnLost([this] {
            {
                std::lock_guard mirror(mirrorMutex_);
                streams_.clear();
            }
            notify();
        });
        pa_context_set_subscribe_callback(l->context(), &Callbacks::subscription, this);
        if (pa_operation* op = pa_context_subscribe(l->context(), PA_SUBSCRIPTION_MASK_SINK_INPUT,
                                                    nullptr, nullptr))
            pa_operation_unref(op);
        {
            std::lock_guard mirror(mirrorMutex_);
            streams_.clear();
        }
        // The first list is waited for, so that what a crashed run left can
        // be put right at launch.
        l->finish(pa_context_get_sink_input_info_list(l->context(), &Callbacks::input, this));
    }
    std::shared_ptr<PulseLoop> old;
    {
        std::lock_guard lock(loopMutex_);
        old = std::exchange(loop_, l);
    }
    if (old) {
        PulseLoop::Lock lock(*old);
        pa_context_set_subscribe_callback(old->context(), nullptr, nullptr);
        old->setOnLost(nullptr);
    }
    return true;
}

std::vector<mixer::AppStream> PulseSinkInputs::streams() {
    std::lock_guard lock(mirrorMutex_);
    std::vector<mixer::AppStream> out;
    for (const auto& [index, s] : streams_) out.push_back(s);
    return out;
}

void PulseSinkInputs::setVolume(uint32_t index, const std::vector<mixer::RawVolume>& volume) {
    std::shared_ptr<PulseLoop> l = loop();
    if (!l || !l->ready() || volume.empty() || volume.size() > PA_CHANNELS_MAX) return;
    pa_cvolume v;
    pa_cvolume_init(&v);
    v.channels = uint8_t(volume.size());
    for (size_t ch = 0; ch < volume.size(); ++ch)
        v.values[ch] = std::min<pa_volume_t>(volume[ch], PA_VOLUME_MAX);
    PulseLoop::Lock lock(*l);
    if (pa_operation* op =
            pa_context_set_sink_input_volume(l->context(), index, &v, nullptr, nullptr))
        pa_operation_unref(op);
}

namespace {

// One stored entry to write back: the key and volume we want, the rest as
// the server has it (found by reading its entries first).
struct RestoreWrite {
    std::string key;
    pa_cvolume volume{};
    bool found = false;
    std::string device;
    bool mute = false;
};

void writeEntry(pa_context* c, RestoreWrite* w) {
    pa_ext_stream_restore_info e{};
    e.name = w->key.c_str();
    pa_channel_map_init_auto(&e.channel_map, w->volume.channels, PA_CHANNEL_MAP_DEFAULT);
    e.volume = w->volume;
    e.device = w->found && !w->device.empty() ? w->device.c_str() : nullptr;
    e.mute = w->mute;
    // REPLACE touches this entry alone: SET would first empty the store of
    // every other program's kept volumes.
    if (pa_operation* op =
            pa_ext_stream_restore_write(c, PA_UPDATE_REPLACE, &e, 1, 0, nullptr, nullptr))
        pa_operation_unref(op);
    delete w;
}

void readEntry(pa_context* c, const pa_ext_stream_restore_info* info, int eol, void* data) {
    auto* w = static_cast<RestoreWrite*>(data);
    if (!eol && info) {
        if (info->name && w->key == info->name) {
            w->found = true;
            w->device = info->device ? info->device : "";
            w->mute = info->mute != 0;
        }
        return;
    }
    // eol < 0: the server has no such store; write anyway, it answers no.
    writeEntry(c, w);
}

}  // namespace

bool PulseSinkInputs::rememberVolume(const std::string& restoreKey,
                                     const std::vector<mixer::RawVolume>& volume) {
    if (restoreKey.empty() || volume.empty() || volume.size() > PA_CHANNELS_MAX) return true;
    std::shared_ptr<PulseLoop> l = loop();
    if (!l || !l->ready()) return false;
    auto* w = new RestoreWrite{restoreKey};
    w->volume.channels = uint8_t(volume.size());
    for (size_t ch = 0; ch < volume.size(); ++ch)
        w->volume.values[ch] = std::min<pa_volume_t>(volume[ch], PA_VOLUME_MAX);
    PulseLoop::Lock lock(*l);
    if (pa_operation* op = pa_ext_stream_restore_read(l->context(), &readEntry, w)) {
        pa_operation_unref(op);
        return true;
    }
    delete w;
    return false;
}

void PulseSinkInputs::settle() {
    std::shared_ptr<PulseLoop> l = loop();
    if (!l || !l->ready()) return;
    PulseLoop::Lock lock(*l);
    // The server answers in order: once the first round trip is back, every
    // read has issued its write; once the second is, those are done too.
    for (int round = 0; round < 2; ++round)
        if (!l->finish(pa_context_get_server_info(
                l->context(), [](pa_context*, const pa_server_info*, void*) {}, nullptr)))
            return;
}

void PulseSinkInputs::setChangeHandler(std::function<void()> handler) {
    std::lock_guard lock(handlerMutex_);
    handler_ = std::move(handler);
}

void PulseSinkInputs::notify() {
    std::lock_guard lock(handlerMutex_);
    if (handler_) handler_();
}

double PulseSinkInputs::toLinear(mixer::RawVolume v) const {
    return pa_sw_volume_to_linear(v);
}

mixer::RawVolume PulseSinkInputs::fromLinear(double linear) const {
    return pa_sw_volume_from_linear(std::max(0.0, linear));
}

}  // namespace vt::platform
