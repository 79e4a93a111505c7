#include "engine/multi_output_engine.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "devices/volume_law.h"
#include "engine/engine_log.h"
#include "engine/rate_ratio.h"

namespace vt::engine {

using platform::DeviceId;
using platform::kNoDevice;

const char* captureKindRaw(CaptureKind kind) {
    return kind == CaptureKind::tap ? "tap" : "input";
}

// The ring engine and every callback context. Streams reach these through raw
// pointers, so they are shared with any open still in flight and die only
// after the last stream that could call into them.
struct MultiOutputEngine::Contexts {
    re_engine* eng = nullptr;
    re_input_ctx input{};
    std::array<re_output_ctx, maxOutputs> outputs{};

    Contexts() {
        eng = re_engine_create();
        if (!eng) std::abort();
        input.engine = eng;
        for (int i = 0; i < maxOutputs; ++i) {
            outputs[i].engine = eng;
            outputs[i].slot = static_cast<uint32_t>(i);
        }
    }
    ~Contexts() { re_engine_destroy(eng); }
    Contexts(const Contexts&) = delete;
    Contexts& operator=(const Contexts&) = delete;
};

// Lets a completion that arrives after the engine is gone see that it is.
struct MultiOutputEngine::Alive {
    MultiOutputEngine* engine = nullptr;
};

// What an open hands back to the main thread. The contexts are declared first
// so that the stream, destroyed first, stops before they could go.
struct MultiOutputEngine::OpenCompletion {
    std::shared_ptr<Contexts> ctx;
    platform::StreamResult result;
};

namespace {

class SlowStepLog {
  public:
    explicit SlowStepLog(const char* name) : name_(name), t0_(std::chrono::steady_clock::now()) {}
    ~SlowStepLog() {
        double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0_).count();
        if (s > 1.0) {
            char buf[128];
            std::snprintf(buf, sizeof buf, "%s took %.1f s", name_, s);
            engineLog(buf);
        }
    }

  private:
    const char* name_;
    std::chrono::steady_clock::time_point t0_;
};

}  // namespace

MultiOutputEngine::MultiOutputEngine(platform::AudioBackend& backend,
                                     dispatch::MainQueue& mainQueue, dispatch::WorkQueue& openQueue)
    : backend_(backend),
      main_(mainQueue),
      openQueue_(openQueue),
      ctx_(std::make_shared<Contexts>()),
      alive_(std::make_shared<Alive>()) {
    alive_->engine = this;
    outputDevices_.fill(kNoDevice);
    volumes_.fill(1.0);
    for (auto& r : nominalRates_) r.store(48000.0);
}

MultiOutputEngine::~MultiOutputEngine() {
    alive_->engine = nullptr;
    // The owner is going away: nobody is left to tell about slots closing.
    onSlotStateChanged = nullptr;
    onSlotFailed = nullptr;
    onCaptureRateChanged = nullptr;
    stop();
    for (auto& s : outputStreams_) s.reset();
    captureStream_.reset();
}

re_engine* MultiOutputEngine::ringEngine() const {
    return ctx_->eng;
}

// ---------------------------------------------------------------- start, stop

void MultiOutputEngine::start() {
    if (running_) return;
    {
        SlowStepLog slow("capture setup");
        startCapture();
        refreshMasterGain();
        watchingCapture_ = true;
        sinkWatch_ =
            std::make_unique<devices::ChangeHop>(backend_, main_, [this] { handleSinkChange(); });
        running_ = true;
        checkCaptureRate();
    }
    SlowStepLog slow("opening outputs");
    for (int slot = 0; slot < maxOutputs; ++slot) {
        if (!configuredUIDs_[slot]) continue;
        try {
            openOutput(slot);
        } catch (const EngineError&) {
            // The slot stays closed; it opens when its sink appears.
        }
    }
}

void MultiOutputEngine::startCapture() {
    std::optional<platform::SinkInfo> sink = backend_.sinkByName(kCaptureSinkName);
    std::optional<uint32_t> loaded;
    if (!sink) {
        loaded =
            backend_.loadNullSink(kCaptureSinkName, kCaptureSinkDescription, kCaptureRate, 2, true);
        if (!loaded) throw EngineError::captureSinkMissing();
        // The server answers the load before its sink list says so: give the
        // mirror the same second the rate is given to settle.
        for (int i = 0; i < 200 && !sink; ++i) {
            sink = backend_.sinkByName(kCaptureSinkName);
            if (!sink) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        if (!sink) {
            backend_.unloadModule(*loaded);
            throw EngineError::captureSinkMissing();
        }
    }
    // A null sink cannot change rate once made: one left at another rate by
    // someone else is refused rather than resampled behind our back.
    if (sink->sampleRate > 0 && sink->sampleRate != kCaptureRate) {
        if (loaded) backend_.unloadModule(*loaded);
        throw EngineError::captureSinkWrongRate(sink->sampleRate);
    }

    re_engine_reset(ctx_->eng);
    // Only the monitor capture exists here; the variable is read so that a
    // setting meant for another build is accepted, and then has no effect.
    (void)std::getenv("VELLATONE_CAPTURE");
    captureKind_ = CaptureKind::input;

    const std::string monitor =
        sink->monitorSource.empty() ? std::string(kCaptureSourceName) : sink->monitorSource;
    platform::StreamResult r =
        backend_.openCapture(monitor, kCaptureRate, re_capture_block, &ctx_->input);
    if (!r.stream) {
        if (loaded) backend_.unloadModule(*loaded);
        throw EngineError::soundServer(r.status != 0 ? r.status : -1);
    }
    captureStream_ = std::move(r.stream);
    captureModule_ = loaded;
    captureDevice_ = sink->id;
    inputSourceDevice_ = sink->id;
}

void MultiOutputEngine::stop() {
    if (!running_) return;
    watchingCapture_ = false;
    sinkWatch_.reset();
    inputSourceDevice_ = kNoDevice;
    for (int slot = 0; slot < maxOutputs; ++slot) closeOutput(slot);
    stopCapture();
    running_ = false;
}

void MultiOutputEngine::stopCapture() {
    captureStream_.reset();
    if (captureModule_) {
        backend_.unloadModule(*captureModule_);
        captureModule_.reset();
    }
    captureDevice_ = kNoDevice;
}

// -------------------------------------------------------------- slot control

void MultiOutputEngine::setOutputDevice(int slot, std::optional<std::string> uid) {
    if (!validSlot(slot)) return;
    closeOutput(slot);
    configuredUIDs_[slot] = std::move(uid);
    if (configuredUIDs_[slot] && running_) openOutput(slot);
}

void MultiOutputEngine::openOutput(int slot) {
    if (!configuredUIDs_[slot]) return;
    const std::string uid = *configuredUIDs_[slot];
    std::optional<platform::SinkInfo> sink = backend_.sinkByName(uid);
    if (!sink || uid == kCaptureSinkName) throw EngineError::deviceNotFound(uid);
    const DeviceId device = sink->id;

    double rate = sink->sampleRate > 0 ? sink->sampleRate : 48000.0;
    nominalRates_[slot].store(rate);
    applyRate(slot, rate);

    hasHardwareVolume_[slot] = sink->hasVolume;
    savedDeviceVolumes_[slot].reset();
    if (sink->hasVolume && !holdsDeviceElsewhere(slot, device))
        savedDeviceVolumes_[slot] =
            volumeStore_ ? volumeStore_->keep(uid, sink->volumeScalar) : sink->volumeScalar;
    pushVolume(slot, device);

    const uint64_t token = ++openTokens_[slot];
    opening_[slot] = true;
    outputDevices_[slot] = device;

    auto done = std::make_shared<OpenCompletion>();
    done->ctx = ctx_;
    // Off the main thread: only the slow server round trips, and nothing of
    // the engine itself, which may be gone by the time this runs.
    openQueue_.async(
        [&backend = backend_, &main = main_, done, alive = alive_, slot, token, uid, rate] {
            done->result = backend.openPlayback(uid, static_cast<uint32_t>(std::lround(rate)),
                                                re_playback_block, &done->ctx->outputs[slot]);
            main.post([done, alive, slot, token, uid] {
                if (!alive->engine) {
                    done->result.stream.reset();
                    return;
                }
                alive->engine->finishOpen(slot, token, uid, done);
            });
        });
}

void MultiOutputEngine::finishOpen(int slot, uint64_t token, const std::string& uid,
                                   std::shared_ptr<OpenCompletion> done) {
    if (!done->result.stream) {
        openFailed(slot, token, done->result.status != 0 ? done->result.status : -1);
        return;
    }
    if (running_ && openTokens_[slot] == token && configuredUIDs_[slot] == uid) {
        opening_[slot] = false;
        commitOpen(slot, outputDevices_[slot], std::move(done->result.stream));
        return;
    }
    // Closed or reopened while the stream was being made: stop it quietly.
    done->result.stream.reset();
}

void MultiOutputEngine::openFailed(int slot, uint64_t token, int status) {
    if (openTokens_[slot] != token) return;
    opening_[slot] = false;
    releaseDevice(slot);
    engineLog("output slot " + std::to_string(slot) +
              " would not start, err=" + std::to_string(status));
    if (onSlotFailed) onSlotFailed(slot, status);
}

void MultiOutputEngine::commitOpen(int slot, DeviceId device,
                                   std::unique_ptr<platform::Stream> stream) {
    outputDevices_[slot] = device;
    // The ratio follows the rate the stream really runs at, should the server
    // have granted another than the one asked for.
    double streamRate = stream->sampleRate();
    outputStreams_[slot] = std::move(stream);
    if (streamRate > 0 && streamRate != nominalRates_[slot].load()) applyRate(slot, streamRate);

    rateListeners_[slot] = true;
    const uint64_t token = openTokens_[slot];
    recheckRate(slot, token, device);
    rateRechecks_[slot] =
        main_.postAfter(0.3, [this, slot, token, device] { recheckRate(slot, token, device); });
    if (onSlotStateChanged) onSlotStateChanged(slot, true);
}

void MultiOutputEngine::closeOutput(int slot) {
    ++openTokens_[slot];
    opening_[slot] = false;
    rateListeners_[slot] = false;
    rateRechecks_[slot].reset();
    releaseDevice(slot);
    if (outputStreams_[slot]) {
        outputStreams_[slot].reset();
        if (onSlotStateChanged) onSlotStateChanged(slot, false);
    }
}

bool MultiOutputEngine::holdsDeviceElsewhere(int slot, DeviceId device) const {
    for (int other = 0; other < maxOutputs; ++other) {
        if (other != slot && outputDevices_[other] == device) return true;
    }
    return false;
}

void MultiOutputEngine::releaseDevice(int slot) {
    const DeviceId device = outputDevices_[slot];
    if (savedDeviceVolumes_[slot] && device != kNoDevice) {
        int heir = -1;
        for (int other = 0; other < maxOutputs; ++other) {
            if (other != slot && outputDevices_[other] == device) {
                heir = other;
                break;
            }
        }
        if (heir < 0) {
            // A write the server never took (it has gone) stays kept, and is
            // given back when the speaker is next let go of, or at launch.
            if (backend_.setSinkVolume(device, *savedDeviceVolumes_[slot]) && volumeStore_ &&
                configuredUIDs_[slot])
                volumeStore_->givenBack(*configuredUIDs_[slot]);
        } else if (!savedDeviceVolumes_[heir]) {
            // The last slot to let go of the sink restores it.
            savedDeviceVolumes_[heir] = savedDeviceVolumes_[slot];
        }
    }
    savedDeviceVolumes_[slot].reset();
    hasHardwareVolume_[slot] = false;
    hardwareGains_[slot].reset();
    outputDevices_[slot] = kNoDevice;
}

// ---------------------------------------------------------------- rates

void MultiOutputEngine::applyRate(int slot, double rate) {
    re_engine_set_base_ratio(ctx_->eng, slot, baseRatioForRate(rate));
    re_engine_reset_reader(ctx_->eng, slot);
}

void MultiOutputEngine::recheckRate(int slot, uint64_t token, DeviceId device) {
    if (!running_ || openTokens_[slot] != token || outputDevices_[slot] != device) return;
    std::optional<platform::SinkInfo> sink = backend_.sinkById(device);
    if (!sink || !(sink->sampleRate > 0) || sink->sampleRate == nominalRates_[slot].load()) return;
    nominalRates_[slot].store(sink->sampleRate);
    applyRate(slot, sink->sampleRate);
    // A playback stream keeps the rate it was made with and the server would
    // resample it to the sink's new one. Reopening at the new rate keeps the
    // conversion in our own resampler.
    if (outputStreams_[slot] && outputStreams_[slot]->sampleRate() != sink->sampleRate) {
        closeOutput(slot);
        try {
            openOutput(slot);
        } catch (const EngineError&) {
            // Gone meanwhile: the device list change brings it back.
        }
    }
}

void MultiOutputEngine::handleSinkChange() {
    for (int slot = 0; slot < maxOutputs; ++slot) {
        if (rateListeners_[slot]) recheckRate(slot, openTokens_[slot], outputDevices_[slot]);
    }
    if (watchingCapture_) {
        refreshMasterGain();
        checkCaptureRate();
    }
}

void MultiOutputEngine::checkCaptureRate() {
    if (!running_) return;
    std::optional<platform::SinkInfo> sink = backend_.sinkByName(kCaptureSinkName);
    if (!sink || sink->id != captureDevice_) return;
    if (sink->sampleRate > 0 && sink->sampleRate != kCaptureRate) {
        char buf[96];
        std::snprintf(buf, sizeof buf, "capture rate moved to %g while running", sink->sampleRate);
        engineLog(buf);
        if (onCaptureRateChanged) onCaptureRateChanged(sink->sampleRate);
    }
}

void MultiOutputEngine::handleDeviceListChange() {
    if (!running_) return;
    for (int slot = 0; slot < maxOutputs; ++slot) {
        if (!configuredUIDs_[slot]) continue;
        const std::string& uid = *configuredUIDs_[slot];
        bool present = uid != kCaptureSinkName && backend_.sinkByName(uid).has_value();
        bool active = outputStreams_[slot] != nullptr || opening_[slot];
        if (active && !present) {
            closeOutput(slot);
        } else if (!active && present) {
            try {
                openOutput(slot);
            } catch (const EngineError&) {
            }
        }
    }
}

// ---------------------------------------------------------------- volume

void MultiOutputEngine::pushVolume(int slot) {
    pushVolume(slot, outputDevices_[slot]);
}

void MultiOutputEngine::pushVolume(int slot, DeviceId device) {
    float gain;
    const float master = masterGain_ * appMasterGain_;
    if (hasHardwareVolume_[slot] && device != kNoDevice) {
        const double v = volumes_[slot];
        backend_.setSinkVolume(device, v);
        auto& cache = hardwareGains_[slot];
        if (!cache || cache->device != device || cache->volume != v) {
            cache = HardwareGain{device, v, static_cast<float>(linearVolume(device, v))};
        }
        // The row's volume has gone to the sink itself.
        gain = mutes_[slot] ? 0.0f : master;
    } else {
        gain = mutes_[slot] ? 0.0f : static_cast<float>(volumes_[slot]) * master;
    }
    re_engine_set_gain(ctx_->eng, slot, gain);
}

double MultiOutputEngine::linearVolume(DeviceId device, double scalar) {
    std::optional<platform::SinkInfo> sink = backend_.sinkById(device);
    if (sink && std::fabs(sink->volumeScalar - scalar) < 1e-3) return sink->volumeLinear;
    // The server's mirror may not have caught up with the volume just set.
    return backend_.volumeToLinear(scalar);
}

void MultiOutputEngine::refreshMasterGain() {
    std::optional<platform::SinkInfo> sink = backend_.sinkByName(kCaptureSinkName);
    if (!sink) return;
    double g = devices::SystemVolume::engineGain(captureKind_ == CaptureKind::tap,
                                                 backend_.volumeToLinear(sink->volumeScalar));
    if (std::fabs(g - masterGain_) > 0.0001) {
        masterGain_ = static_cast<float>(g);
        for (int slot = 0; slot < maxOutputs; ++slot) pushVolume(slot);
    }
}

void MultiOutputEngine::setVolume(int slot, double volume) {
    if (!validSlot(slot)) return;
    volumes_[slot] = std::isnan(volume) ? 0.0 : std::clamp(volume, 0.0, 1.0);
    pushVolume(slot);
}

void MultiOutputEngine::setMuted(int slot, bool muted) {
    if (!validSlot(slot)) return;
    mutes_[slot] = muted;
    pushVolume(slot);
}

void MultiOutputEngine::setMasterVolume(double volume) {
    appMasterGain_ = static_cast<float>(std::isnan(volume) ? 0.0 : std::clamp(volume, 0.0, 1.0));
    for (int slot = 0; slot < maxOutputs; ++slot) pushVolume(slot);
}

double MultiOutputEngine::hardwareGain(int slot) const {
    if (!validSlot(slot)) return 1.0;
    if (!hasHardwareVolume_[slot] || outputDevices_[slot] == kNoDevice) return 1.0;
    if (hardwareGains_[slot]) return hardwareGains_[slot]->gain;
    return volumes_[slot];
}

double MultiOutputEngine::rowGain(int slot) const {
    if (!validSlot(slot)) return 0.0;
    if (hasHardwareVolume_[slot] && outputDevices_[slot] != kNoDevice) return hardwareGain(slot);
    return volumes_[slot];
}

// ---------------------------------------------------------------- per slot

void MultiOutputEngine::setDelayMs(int slot, double ms) {
    if (!validSlot(slot)) return;
    re_engine_set_delay_ms(ctx_->eng, slot, std::isnan(ms) ? 0.0 : std::clamp(ms, 0.0, 10000.0));
}

void MultiOutputEngine::setMix(int slot, double ll, double lr, double rl, double rr) {
    if (!validSlot(slot)) return;
    auto c = [](double v) {
        return static_cast<float>(std::isnan(v) ? 0.0 : std::clamp(v, 0.0, 2.0));
    };
    re_engine_set_mix(ctx_->eng, slot, c(ll), c(lr), c(rl), c(rr));
}

void MultiOutputEngine::setTestGain(int slot, double gain) {
    if (!validSlot(slot)) return;
    re_engine_set_test_gain(ctx_->eng, slot, static_cast<float>(std::max(gain, 0.0)));
}

void MultiOutputEngine::setEQ(int slot, const equaliser::EQSettings& settings) {
    if (!validSlot(slot)) return;
    re_engine_set_eq_enabled(ctx_->eng, slot, settings.enabled);
    re_engine_set_eq_preamp_db(ctx_->eng, slot, settings.preampDb);
    auto bands = equaliser::EQSettings::sized(settings.bands);
    for (size_t b = 0; b < bands.size(); ++b) {
        const auto& band = bands[b];
        re_engine_set_eq_band(ctx_->eng, slot, static_cast<int32_t>(b), equaliser::index(band.kind),
                              band.frequency, band.gainDb, band.q);
    }
}

void MultiOutputEngine::setMasterEQ(const equaliser::EQSettings& settings) {
    re_engine_set_master_eq_enabled(ctx_->eng, settings.enabled);
    re_engine_set_master_eq_preamp_db(ctx_->eng, settings.preampDb);
    auto bands = equaliser::EQSettings::sized(settings.bands);
    for (size_t b = 0; b < bands.size(); ++b) {
        const auto& band = bands[b];
        re_engine_set_master_eq_band(ctx_->eng, static_cast<int32_t>(b),
                                     equaliser::index(band.kind), band.frequency, band.gainDb,
                                     band.q);
    }
}

bool MultiOutputEngine::takeEQClip(int slot) {
    return validSlot(slot) && re_engine_take_eq_clip(ctx_->eng, slot) != 0;
}

bool MultiOutputEngine::takeMasterEQClip() {
    return re_engine_take_master_eq_clip(ctx_->eng) != 0;
}

MultiOutputEngine::Telemetry MultiOutputEngine::telemetry(int slot) const {
    if (!validSlot(slot)) return {};
    const auto& stream = outputStreams_[static_cast<size_t>(slot)];
    return {re_engine_ppm(ctx_->eng, slot), re_engine_fill_err_ms(ctx_->eng, slot),
            stream ? stream->underruns() : 0, re_engine_starved_frames(ctx_->eng, slot)};
}

double MultiOutputEngine::lateMs(int slot) const {
    return validSlot(slot) ? re_engine_late_ms(ctx_->eng, slot) : 0.0;
}

bool MultiOutputEngine::isOpening(int slot) const {
    return validSlot(slot) && opening_[slot];
}

bool MultiOutputEngine::isOpen(int slot) const {
    return validSlot(slot) && outputStreams_[slot] != nullptr;
}

std::optional<std::string> MultiOutputEngine::outputDeviceUID(int slot) const {
    return validSlot(slot) ? configuredUIDs_[slot] : std::nullopt;
}

MultiOutputEngine::Peak MultiOutputEngine::takePeak(int slot) {
    if (!validSlot(slot)) return {};
    Peak p;
    re_engine_take_peak(ctx_->eng, slot, &p.left, &p.right);
    // Meters show what leaves the device, after its own volume.
    const float g = static_cast<float>(hardwareGain(slot));
    p.left *= g;
    p.right *= g;
    return p;
}

double MultiOutputEngine::outputRate(int slot) const {
    if (!validSlot(slot)) return 48000.0;
    double r = nominalRates_[slot].load();
    if (!(r > 0)) return 48000.0;
    return std::clamp(r, 44100.0, 96000.0);
}

// ---------------------------------------------------------------- scopes

void MultiOutputEngine::fillCaptureEnvelope(std::span<float> into, double spanSeconds) const {
    if (!running_ || into.empty() || !(spanSeconds > 0)) {
        std::fill(into.begin(), into.end(), 0.0f);
        return;
    }
    double perPoint = std::round(spanSeconds * RE_RATE / static_cast<double>(into.size()));
    perPoint = std::clamp(perPoint, 1.0, static_cast<double>(RE_RING_FRAMES));
    re_engine_envelope(ctx_->eng, into.data(), static_cast<uint32_t>(into.size()),
                       static_cast<uint32_t>(perPoint));
}

void MultiOutputEngine::fillRecentSamples(std::span<float> into, double delaySeconds) const {
    if (!running_ || into.empty()) {
        std::fill(into.begin(), into.end(), 0.0f);
        return;
    }
    double back = std::max(std::isnan(delaySeconds) ? 0.0 : delaySeconds, 0.0) * RE_RATE;
    back = std::min(back, static_cast<double>(RE_RING_FRAMES));
    re_engine_recent(ctx_->eng, into.data(),
                     static_cast<uint32_t>(std::min<size_t>(into.size(), RE_RING_FRAMES)),
                     static_cast<uint32_t>(back));
}

MultiOutputEngine::RecentSamples MultiOutputEngine::recentSamples(size_t count) const {
    RecentSamples r;
    count = std::min<size_t>(count, RE_RING_FRAMES);
    r.samples.assign(count, 0.0f);
    r.endFrame = re_engine_frames_written(ctx_->eng);
    if (count == 0) return r;
    // The writer may move on between the two reads; asking for the frames
    // behind the new head keeps the copy ending at endFrame.
    uint64_t moved = re_engine_frames_written(ctx_->eng) - r.endFrame;
    re_engine_recent(ctx_->eng, r.samples.data(), static_cast<uint32_t>(count),
                     static_cast<uint32_t>(std::min<uint64_t>(moved, RE_RING_FRAMES)));
    return r;
}

uint64_t MultiOutputEngine::framesWritten() const {
    return re_engine_frames_written(ctx_->eng);
}

std::optional<double> MultiOutputEngine::hostSeconds(double frame) const {
    double s = re_engine_frame_host_sec(ctx_->eng, frame);
    if (s < 0) return std::nullopt;
    return s;
}

std::optional<double> MultiOutputEngine::presentationLeadSeconds(int slot) const {
    if (!validSlot(slot) || !running_ || !re_engine_timed(ctx_->eng, slot)) return std::nullopt;
    return (re_engine_delay_ms(ctx_->eng, slot) + re_engine_late_ms(ctx_->eng, slot)) / 1000.0 +
           RE_BASE_LAG / RE_RATE;
}

void MultiOutputEngine::excludeFromCapture(std::vector<uint32_t> processes) {
    std::sort(processes.begin(), processes.end());
    if (processes != captureExclusions_) captureExclusions_ = std::move(processes);
}

// ---------------------------------------------------------------- network slots

void MultiOutputEngine::prepareAirPlaySlot(int slot, double rate) {
    if (!validSlot(slot)) return;
    {
        std::lock_guard lock(pumpLock_);
        pumpTimelines_[slot].reset(rate);
    }
    nominalRates_[slot].store(rate);
    applyRate(slot, rate);
}

void MultiOutputEngine::renderAirPlay(int slot, float* into, uint32_t frames) {
    renderAirPlayAt(slot, into, frames, re_engine_host_now_sec(ctx_->eng));
}

void MultiOutputEngine::renderAirPlayAt(int slot, float* into, uint32_t frames, double nowSec) {
    if (!validSlot(slot)) return;
    double present;
    {
        std::lock_guard lock(pumpLock_);
        present = pumpTimelines_[slot].advance(nowSec, frames);
    }
    re_engine_render_at_host(ctx_->eng, slot, into, frames, present, nowSec);
}

}  // namespace vt::engine
