#include "platform/pulse/pulse_backend.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "platform/pulse/pulse_convert.h"
#include "platform/pulse/pulse_loop.h"
#include "platform/pulse/pulse_streams.h"
#include "platform/realtime/realtime_scheduling.h"

namespace vt::platform {

using pulse::PulseLoop;

namespace {

// Above every ordinary thread, below the sound server's own (RealtimeKit
// grants up to 20).
constexpr int kStreamThreadPriority = 5;

}  // namespace

// The libpulse callbacks, with access to the mirror. All run on the control
// loop's thread.
struct PulseBackend::Callbacks {
    static void subscription(pa_context* c, pa_subscription_event_type_t t, uint32_t index,
                             void* self) {
        auto* me = static_cast<PulseBackend*>(self);
        const auto facility = t & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
        const bool removed = (t & PA_SUBSCRIPTION_EVENT_TYPE_MASK) == PA_SUBSCRIPTION_EVENT_REMOVE;
        pa_operation* op = nullptr;
        switch (facility) {
            case PA_SUBSCRIPTION_EVENT_SINK:
                if (removed) {
                    {
                        std::lock_guard lock(me->mirrorMutex_);
                        me->sinks_.erase(index);
                    }
                    me->notify(ChangeKind::sinks);
                } else {
                    op = pa_context_get_sink_info_by_index(c, index, &Callbacks::sink, me);
                }
                break;
            case PA_SUBSCRIPTION_EVENT_SINK_INPUT:
                if (removed) {
                    {
                        std::lock_guard lock(me->mirrorMutex_);
                        me->inputs_.erase(index);
                        me->inputChannels_.erase(index);
                    }
                    me->notify(ChangeKind::sinkInputs);
                } else {
                    op = pa_context_get_sink_input_info(c, index, &Callbacks::sinkInput, me);
                }
                break;
            case PA_SUBSCRIPTION_EVENT_SERVER:
                op = pa_context_get_server_info(c, &Callbacks::server, me);
                break;
            default:
                break;
        }
        if (op) pa_operation_unref(op);
    }

    static void sink(pa_context*, const pa_sink_info* info, int eol, void* self) {
        if (eol || !info) return;  // end of list, or the sink went meanwhile
        auto* me = static_cast<PulseBackend*>(self);
        SinkInfo s = pulse::sinkInfoOf(*info);
        {
            std::lock_guard lock(me->mirrorMutex_);
            s.loadedByUs = me->ourModules_.count(s.ownerModule) > 0;
            me->sinks_[s.id] = std::move(s);
        }
        me->notify(ChangeKind::sinks);
    }

    static void sinkInput(pa_context*, const pa_sink_input_info* info, int eol, void* self) {
        if (eol || !info) return;
        auto* me = static_cast<PulseBackend*>(self);
        {
            std::lock_guard lock(me->mirrorMutex_);
            me->inputs_[info->index] = pulse::sinkInputInfoOf(*info);
            me->inputChannels_[info->index] = info->volume.channels;
        }
        me->notify(ChangeKind::sinkInputs);
    }

    static void server(pa_context*, const pa_server_info* info, void* self) {
        if (!info) return;
        auto* me = static_cast<PulseBackend*>(self);
        {
            std::lock_guard lock(me->mirrorMutex_);
            if (info->default_sink_name && *info->default_sink_name)
                me->defaultSink_ = info->default_sink_name;
            else
                me->defaultSink_.reset();
        }
        me->notify(ChangeKind::server);
    }

    static void success(pa_context*, int ok, void* flag) { *static_cast<bool*>(flag) = ok != 0; }

    static void index(pa_context*, uint32_t idx, void* out) { *static_cast<uint32_t*>(out) = idx; }

    // Audio threads run ahead of everything else when the system lets us.
    static void raisePriority(pa_mainloop_api*, void*) {
        raiseCurrentThread(
            systemRealtimeMethods(), kStreamThreadPriority,
            [](const std::string& line) { std::fprintf(stderr, "Vellatone: %s\n", line.c_str()); });
    }
};

PulseBackend::PulseBackend() {
    control_ = PulseLoop::connect("Vellatone");
    if (!control_) return;
    audio_ = PulseLoop::connect("Vellatone streams");
    if (audio_) {
        PulseLoop::Lock lock(*audio_);
        pa_mainloop_api_once(pa_threaded_mainloop_get_api(audio_->loop()),
                             &Callbacks::raisePriority, nullptr);
    }

    PulseLoop::Lock lock(*control_);
    // The server went away: nothing it had is there any more. Say so, so
    // that outputs close; the program carries on without sound.
    control_->setOnLost([this] {
        {
            std::lock_guard mirror(mirrorMutex_);
            sinks_.clear();
            inputs_.clear();
            inputChannels_.clear();
            defaultSink_.reset();
        }
        notify(ChangeKind::sinks);
        notify(ChangeKind::sinkInputs);
        notify(ChangeKind::server);
    });
    pa_context* c = control_->context();
    pa_context_set_subscribe_callback(c, &Callbacks::subscription, this);
    auto mask = static_cast<pa_subscription_mask_t>(
        PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SINK_INPUT | PA_SUBSCRIPTION_MASK_SERVER);
    control_->finish(pa_context_subscribe(c, mask, nullptr, nullptr));
    control_->finish(pa_context_get_server_info(c, &Callbacks::server, this));
    control_->finish(pa_context_get_sink_info_list(c, &Callbacks::sink, this));
    control_->finish(pa_context_get_sink_input_info_list(c, &Callbacks::sinkInput, this));
}

PulseBackend::~PulseBackend() {
    if (control_) {
        PulseLoop::Lock lock(*control_);
        pa_context_set_subscribe_callback(control_->context(), nullptr, nullptr);
        control_->setOnLost(nullptr);
    }
    // Answers still in flight may yet run on the loop thread until it stops;
    // they must not reach a receiver that has gone before us.
    {
        std::lock_guard lock(handlerMutex_);
        handler_ = nullptr;
    }
    // Stopping the loop and disconnecting cancels the queries still in
    // flight, whose callbacks point at this object. Streams keep their own
    // connection alive until they are closed.
    control_.reset();
    audio_.reset();
}

bool PulseBackend::connected() const {
    return control_ && control_->ready();
}

std::vector<SinkInfo> PulseBackend::sinks() {
    std::lock_guard lock(mirrorMutex_);
    std::vector<SinkInfo> out;
    for (const auto& [id, s] : sinks_) out.push_back(s);
    return out;
}

std::optional<SinkInfo> PulseBackend::sinkByName(const std::string& name) {
    std::lock_guard lock(mirrorMutex_);
    for (const auto& [id, s] : sinks_)
        if (s.name == name) return s;
    return std::nullopt;
}

std::optional<SinkInfo> PulseBackend::sinkById(DeviceId id) {
    std::lock_guard lock(mirrorMutex_);
    if (auto it = sinks_.find(id); it != sinks_.end()) return it->second;
    return std::nullopt;
}

std::optional<std::string> PulseBackend::defaultSinkName() {
    std::lock_guard lock(mirrorMutex_);
    return defaultSink_;
}

std::vector<SinkInputInfo> PulseBackend::sinkInputs() {
    std::lock_guard lock(mirrorMutex_);
    std::vector<SinkInputInfo> out;
    for (const auto& [id, i] : inputs_) out.push_back(i);
    return out;
}

bool PulseBackend::canWrite() const {
    return connected() && !control_->inLoopThread();
}

void PulseBackend::refreshSink(const std::string& name) {
    control_->finish(pa_context_get_sink_info_by_name(control_->context(), name.c_str(),
                                                      &Callbacks::sink, this));
}

void PulseBackend::notify(ChangeKind kind) {
    std::function<void(ChangeKind)> handler;
    {
        std::lock_guard lock(handlerMutex_);
        handler = handler_;
    }
    if (handler) handler(kind);
    notifyChangeListeners(kind);
}

void PulseBackend::setChangeHandler(std::function<void(ChangeKind)> handler) {
    std::lock_guard lock(handlerMutex_);
    handler_ = std::move(handler);
}

bool PulseBackend::setDefaultSink(const std::string& name) {
    if (!canWrite()) return false;
    bool ok = false;
    PulseLoop::Lock lock(*control_);
    if (!control_->finish(pa_context_set_default_sink(control_->context(), name.c_str(),
                                                      &Callbacks::success, &ok)) ||
        !ok)
        return false;
    std::lock_guard mirror(mirrorMutex_);
    defaultSink_ = name;  // the server's own event follows
    return true;
}

bool PulseBackend::setSinkVolume(DeviceId id, double scalar) {
    if (!canWrite()) return false;
    std::string name;
    uint8_t channels = 2;
    {
        std::lock_guard lock(mirrorMutex_);
        auto it = sinks_.find(id);
        if (it == sinks_.end()) return false;
        name = it->second.name;
        channels =
            static_cast<uint8_t>(std::clamp<uint32_t>(it->second.channels, 1, PA_CHANNELS_MAX));
    }
    if (!std::isfinite(scalar)) scalar = 0;
    scalar = std::clamp(scalar, 0.0, static_cast<double>(PA_VOLUME_MAX) / PA_VOLUME_NORM);
    pa_cvolume volume;
    pa_cvolume_set(&volume, channels,
                   static_cast<pa_volume_t>(std::lround(scalar * PA_VOLUME_NORM)));
    bool ok = false;
    PulseLoop::Lock lock(*control_);
    if (!control_->finish(pa_context_set_sink_volume_by_index(control_->context(), id, &volume,
                                                              &Callbacks::success, &ok)) ||
        !ok)
        return false;
    refreshSink(name);
    return true;
}

bool PulseBackend::moveSinkInput(uint32_t index, const std::string& sinkName) {
    if (!canWrite()) return false;
    {
        std::lock_guard lock(mirrorMutex_);
        auto it = inputs_.find(index);
        if (it != inputs_.end() && it->second.ours) return false;  // ours stay where they are
    }
    bool ok = false;
    {
        PulseLoop::Lock lock(*control_);
        if (!control_->finish(pa_context_move_sink_input_by_name(
                control_->context(), index, sinkName.c_str(), &Callbacks::success, &ok)) ||
            !ok)
            return false;
    }
    // The server's own event follows later; until then a caller that asks
    // what still plays into the old sink must not see the stream there.
    std::lock_guard mirror(mirrorMutex_);
    auto input = inputs_.find(index);
    if (input == inputs_.end()) return true;
    for (const auto& [id, sink] : sinks_)
        if (sink.name == sinkName) input->second.sink = id;
    return true;
}

bool PulseBackend::setSinkInputVolume(uint32_t index, double linear) {
    if (!canWrite()) return false;
    uint8_t channels = 2;
    {
        std::lock_guard lock(mirrorMutex_);
        if (auto it = inputChannels_.find(index); it != inputChannels_.end() && it->second > 0)
            channels = it->second;
    }
    if (!std::isfinite(linear) || linear < 0) linear = 0;
    pa_cvolume volume;
    pa_cvolume_set(&volume, channels, pa_sw_volume_from_linear(linear));
    bool ok = false;
    PulseLoop::Lock lock(*control_);
    return control_->finish(pa_context_set_sink_input_volume(control_->context(), index, &volume,
                                                             &Callbacks::success, &ok)) &&
           ok;
}

std::optional<uint32_t> PulseBackend::loadNullSink(const std::string& name,
                                                   const std::string& description, uint32_t rate,
                                                   uint32_t channels, bool float32) {
    if (!canWrite()) return std::nullopt;
    const std::string args = pulse::nullSinkArguments(name, description, rate, channels, float32);
    uint32_t module = PA_INVALID_INDEX;
    PulseLoop::Lock lock(*control_);
    if (!control_->finish(pa_context_load_module(control_->context(), "module-null-sink",
                                                 args.c_str(), &Callbacks::index, &module)) ||
        module == PA_INVALID_INDEX)
        return std::nullopt;
    {
        std::lock_guard mirror(mirrorMutex_);
        ourModules_.insert(module);
    }
    // Let the caller find the sink as soon as this returns.
    refreshSink(name);
    return module;
}

bool PulseBackend::unloadModule(uint32_t index) {
    if (!canWrite()) return false;
    bool ok = false;
    {
        PulseLoop::Lock lock(*control_);
        if (!control_->finish(
                pa_context_unload_module(control_->context(), index, &Callbacks::success, &ok)) ||
            !ok)
            return false;
    }
    {
        std::lock_guard mirror(mirrorMutex_);
        ourModules_.erase(index);
        std::erase_if(sinks_, [index](const auto& kv) { return kv.second.ownerModule == index; });
    }
    return true;
}

StreamResult PulseBackend::openCapture(const std::string& sourceName, uint32_t rate,
                                       CaptureCallback proc, void* clientData) {
    return pulse::openRecordStream(audio_, sourceName, rate ? rate : 48000, proc, clientData);
}

StreamResult PulseBackend::openPlayback(const std::string& sinkName, uint32_t rate,
                                        PlaybackCallback proc, void* clientData) {
    auto sink = sinkByName(sinkName);
    if (!sink && canWrite()) {
        PulseLoop::Lock lock(*control_);
        refreshSink(sinkName);
    }
    if (!sink) sink = sinkByName(sinkName);
    if (!sink) {
        StreamResult result;
        result.status = PA_ERR_NOENTITY;
        result.error = pa_strerror(PA_ERR_NOENTITY);
        return result;
    }
    if (rate == 0) rate = static_cast<uint32_t>(sink->sampleRate);
    return pulse::openPlaybackStream(audio_, sinkName, rate, proc, clientData);
}

}  // namespace vt::platform
