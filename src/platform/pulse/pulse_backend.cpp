#include "platform/pulse/pulse_backend.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "platform/pulse/own_stream_entries.h"
#include "platform/pulse/pulse_convert.h"
#include "platform/pulse/pulse_loop.h"
#include "platform/pulse/pulse_streams.h"
#include "platform/pulse/sink_lead.h"
#include "platform/realtime/realtime_scheduling.h"

namespace vt::platform {

using pulse::PulseLoop;

namespace {

// Above every ordinary thread, below the sound server's own (RealtimeKit
// grants up to 20).
constexpr int kStreamThreadPriority = 5;

constexpr const char* kNoDefaultSinkYet = "@DEFAULT_SINK@";

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
            // pipewire-pulse names the placeholder until WirePlumber has
            // chosen a default.
            const std::string name = info->default_sink_name ? info->default_sink_name : "";
            if (!name.empty() && name != kNoDefaultSinkYet)
                me->defaultSink_ = name;
            else
                me->defaultSink_.reset();
            if (info->server_name && *info->server_name) me->serverName_ = info->server_name;
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
    attach();
}

bool PulseBackend::attach() {
    auto control = PulseLoop::connect("Vellatone");
    if (!control) return false;
    auto audio = PulseLoop::connect("Vellatone streams");
    // The capture has a connection of its own. pipewire-pulse sends a
    // record stream's data late, by up to a few hundred milliseconds in
    // bursts, when the same connection also carries several playback
    // streams (pacat recording the same monitor beside it gets its data on
    // time), and the speakers then run out of captured audio.
    auto capture = PulseLoop::connect("Vellatone capture");
    for (const auto& loop : {audio, capture}) {
        if (!loop) continue;
        PulseLoop::Lock lock(*loop);
        pa_mainloop_api_once(pa_threaded_mainloop_get_api(loop->loop()), &Callbacks::raisePriority,
                             nullptr);
    }
    {
        std::lock_guard mirror(mirrorMutex_);
        sinks_.clear();
        inputs_.clear();
        inputChannels_.clear();
        defaultSink_.reset();
        ourModules_.clear();
    }
    {
        std::lock_guard loops(loopsMutex_);
        control_ = control;
        audio_ = audio;
        capture_ = capture;
    }

    PulseLoop::Lock lock(*control);
    // The server went away: nothing it had is there any more. Say so at
    // once, so that outputs close and the user is told; reconnect() brings
    // it back.
    control->setOnLost([this] { forgetServer(); });
    pa_context* c = control->context();
    pa_context_set_subscribe_callback(c, &Callbacks::subscription, this);
    auto mask = static_cast<pa_subscription_mask_t>(
        PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SINK_INPUT | PA_SUBSCRIPTION_MASK_SERVER);
    control->finish(pa_context_subscribe(c, mask, nullptr, nullptr));
    control->finish(pa_context_get_server_info(c, &Callbacks::server, this));
    control->finish(pa_context_get_sink_info_list(c, &Callbacks::sink, this));
    control->finish(pa_context_get_sink_input_info_list(c, &Callbacks::sinkInput, this));
    return control->ready();
}

void PulseBackend::forgetServer() {
    {
        std::lock_guard mirror(mirrorMutex_);
        sinks_.clear();
        inputs_.clear();
        inputChannels_.clear();
        defaultSink_.reset();
        ourModules_.clear();
    }
    notify(ChangeKind::connection);
    notify(ChangeKind::sinks);
    notify(ChangeKind::sinkInputs);
    notify(ChangeKind::server);
}

void PulseBackend::detach() {
    std::shared_ptr<PulseLoop> control, audio, capture;
    {
        std::lock_guard loops(loopsMutex_);
        control = std::move(control_);
        audio = std::move(audio_);
        capture = std::move(capture_);
    }
    if (control) {
        PulseLoop::Lock lock(*control);
        pa_context_set_subscribe_callback(control->context(), nullptr, nullptr);
        control->setOnLost(nullptr);
    }
    // Stopping the loop and disconnecting cancels the queries still in
    // flight, whose callbacks point at this object. Streams keep their own
    // connection alive until they are closed.
}

PulseBackend::~PulseBackend() {
    // Answers still in flight may yet run on the loop thread until it stops;
    // they must not reach a receiver that has gone before us.
    {
        std::lock_guard lock(handlerMutex_);
        handler_ = nullptr;
    }
    detach();
}

std::shared_ptr<PulseLoop> PulseBackend::control() const {
    std::lock_guard loops(loopsMutex_);
    return control_;
}

std::shared_ptr<PulseLoop> PulseBackend::audio() const {
    std::lock_guard loops(loopsMutex_);
    return audio_;
}

std::shared_ptr<PulseLoop> PulseBackend::captureLoop() const {
    std::lock_guard loops(loopsMutex_);
    return capture_;
}

bool PulseBackend::connected() const {
    auto c = control();
    return c && c->ready();
}

bool PulseBackend::reconnect() {
    std::lock_guard one(reconnectMutex_);
    if (connected()) return true;
    if (auto c = control(); c && c->inLoopThread()) return false;
    detach();
    if (!attach()) {
        detach();
        return false;
    }
    notify(ChangeKind::connection);
    notify(ChangeKind::sinks);
    notify(ChangeKind::sinkInputs);
    notify(ChangeKind::server);
    return true;
}

std::string PulseBackend::serverName() const {
    std::lock_guard mirror(mirrorMutex_);
    return serverName_;
}

double PulseBackend::volumeToLinear(double scalar) const {
    if (!std::isfinite(scalar) || scalar <= 0) return 0;
    scalar = std::min(scalar, static_cast<double>(PA_VOLUME_MAX) / PA_VOLUME_NORM);
    return pa_sw_volume_to_linear(static_cast<pa_volume_t>(std::lround(scalar * PA_VOLUME_NORM)));
}

double PulseBackend::volumeFromLinear(double linear) const {
    if (!std::isfinite(linear) || linear <= 0) return 0;
    return static_cast<double>(pa_sw_volume_from_linear(linear)) / PA_VOLUME_NORM;
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

bool PulseBackend::canWrite(const std::shared_ptr<PulseLoop>& control) const {
    return control && control->ready() && !control->inLoopThread();
}

void PulseBackend::refreshSink(PulseLoop& control, const std::string& name) {
    control.finish(
        pa_context_get_sink_info_by_name(control.context(), name.c_str(), &Callbacks::sink, this));
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
    auto control = this->control();
    if (!canWrite(control)) return false;
    bool ok = false;
    PulseLoop::Lock lock(*control);
    if (!control->finish(pa_context_set_default_sink(control->context(), name.c_str(),
                                                     &Callbacks::success, &ok)) ||
        !ok)
        return false;
    std::lock_guard mirror(mirrorMutex_);
    defaultSink_ = name;  // the server's own event follows
    return true;
}

bool PulseBackend::setSinkVolume(DeviceId id, double scalar) {
    auto control = this->control();
    if (!canWrite(control)) return false;
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
    PulseLoop::Lock lock(*control);
    if (!control->finish(pa_context_set_sink_volume_by_index(control->context(), id, &volume,
                                                             &Callbacks::success, &ok)) ||
        !ok)
        return false;
    refreshSink(*control, name);
    return true;
}

bool PulseBackend::moveSinkInput(uint32_t index, const std::string& sinkName) {
    auto control = this->control();
    if (!canWrite(control)) return false;
    {
        std::lock_guard lock(mirrorMutex_);
        auto it = inputs_.find(index);
        if (it != inputs_.end() && it->second.ours) return false;  // ours stay where they are
    }
    bool ok = false;
    {
        PulseLoop::Lock lock(*control);
        if (!control->finish(pa_context_move_sink_input_by_name(
                control->context(), index, sinkName.c_str(), &Callbacks::success, &ok)) ||
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
    auto control = this->control();
    if (!canWrite(control)) return false;
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
    PulseLoop::Lock lock(*control);
    return control->finish(pa_context_set_sink_input_volume(control->context(), index, &volume,
                                                            &Callbacks::success, &ok)) &&
           ok;
}

std::optional<uint32_t> PulseBackend::loadNullSink(const std::string& name,
                                                   const std::string& description, uint32_t rate,
                                                   uint32_t channels, bool float32) {
    auto control = this->control();
    if (!canWrite(control)) return std::nullopt;
    const std::string args = pulse::nullSinkArguments(name, description, rate, channels, float32);
    uint32_t module = PA_INVALID_INDEX;
    PulseLoop::Lock lock(*control);
    if (!control->finish(pa_context_load_module(control->context(), "module-null-sink",
                                                args.c_str(), &Callbacks::index, &module)) ||
        module == PA_INVALID_INDEX)
        return std::nullopt;
    {
        std::lock_guard mirror(mirrorMutex_);
        ourModules_.insert(module);
    }
    // Let the caller find the sink as soon as this returns.
    refreshSink(*control, name);
    return module;
}

bool PulseBackend::unloadModule(uint32_t index) {
    auto control = this->control();
    if (!canWrite(control)) return false;
    bool ok = false;
    {
        PulseLoop::Lock lock(*control);
        if (!control->finish(
                pa_context_unload_module(control->context(), index, &Callbacks::success, &ok)) ||
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
    rate = rate ? rate : 48000;
    // See sink_lead.h: on PulseAudio, a sink we record keeps a short lead.
    // Its clock is restarted before the record stream exists, so that the
    // recording starts on the new clock rather than with a jump in it.
    std::unique_ptr<Stream> companion;
    auto control = this->control();
    std::optional<SinkInfo> sink;
    bool othersPlay = false;
    bool pipewire = false;
    {
        std::lock_guard mirror(mirrorMutex_);
        pipewire = serverName_.find("PipeWire") != std::string::npos;
        for (const auto& [index, info] : sinks_)
            if (info.monitorSource == sourceName) sink = info;
        if (sink)
            for (const auto& [index, input] : inputs_)
                if (input.sink == sink->id && !input.ours) othersPlay = true;
    }
    if (!pipewire && sink && canWrite(control)) {
        companion =
            pulse::holdShortSinkLead(audio(), *control, sink->id, sink->name, rate, !othersPlay);
        companion =
            pulse::clearingEntryOnClose(std::move(companion), control, sink->name, true, pipewire);
    }
    if (canWrite(control)) pulse::clearOwnStreamEntry(*control, sourceName, false, pipewire);
    StreamResult result =
        pulse::openRecordStream(captureLoop(), sourceName, rate, proc, clientData);
    if (!result.stream) return result;
    result.stream =
        pulse::clearingEntryOnClose(std::move(result.stream), control, sourceName, false, pipewire);
    result.stream = pulse::withCompanion(std::move(result.stream), std::move(companion));
    return result;
}

StreamResult PulseBackend::openPlayback(const std::string& sinkName, uint32_t rate,
                                        PlaybackCallback proc, void* clientData) {
    auto sink = sinkByName(sinkName);
    if (auto control = this->control(); !sink && canWrite(control)) {
        PulseLoop::Lock lock(*control);
        refreshSink(*control, sinkName);
    }
    if (!sink) sink = sinkByName(sinkName);
    if (!sink) {
        StreamResult result;
        result.status = PA_ERR_NOENTITY;
        result.error = pa_strerror(PA_ERR_NOENTITY);
        return result;
    }
    if (rate == 0) rate = static_cast<uint32_t>(sink->sampleRate);
    auto control = this->control();
    const bool pipewire = serverName().find("PipeWire") != std::string::npos;
    if (canWrite(control)) pulse::clearOwnStreamEntry(*control, sinkName, true, pipewire);
    StreamResult result = pulse::openPlaybackStream(
        audio(), sinkName, pulse::playbackStreamName(*sink), rate, proc, clientData);
    result.stream =
        pulse::clearingEntryOnClose(std::move(result.stream), control, sinkName, true, pipewire);
    return result;
}

}  // namespace vt::platform
