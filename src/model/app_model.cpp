#include "model/app_model.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "core/ring_engine.h"
#include "devices/audio_devices.h"
#include "devices/volume_law.h"
#include "guard/capture_sinks.h"
#include "guard/crash_recovery.h"
#include "model/row_records.h"

namespace vt::model {

using devices::AudioDevice;
namespace AudioDevices = devices::AudioDevices;

AppModel::AppModel(platform::AudioBackend& backend, dispatch::MainQueue& main,
                   dispatch::WorkQueue& openQueue, settings::Settings& settings,
                   std::unique_ptr<settings::DebugLogWriter> debugLog)
    : backend_(backend),
      main_(main),
      settings_(settings),
      engine_(std::make_unique<engine::MultiOutputEngine>(backend, main, openQueue)),
      restorer_(backend, settings),
      monitor_(backend, main),
      latencyWatcher_(backend, main),
      soundServer_(backend, main),
      debugLog_(std::move(debugLog)),
      launched_(main.now()) {
    // What the user chose last time.
    playbackMode_ = settings_.playbackMode();
    syncSlowSpeakers_ = settings_.syncSlowSpeakers();
    if (nlohmann::json room = settings_.room(); room.is_object())
        room_ = room.get<stage::RoomState>();
    masterVolume_ = settings_.masterVolume();
    engine_->setMasterVolume(masterVolume_);
    masterEQ_ = settings_.masterEQ();
    engine_->setMasterEQ(masterEQ_);
    engine_->setSpeakerVolumeStore(&speakerVolumes_);

    // A run that died holding the system output left a note: give the output
    // back before anything else happens.
    restoredOutput_ = guard::recoverAfterCrash(backend_, settings_);

    outputDevices_ = AudioDevices::outputs(backend_);
    refreshCaptureAvailable();
    loadRows();
    installCallbacks();

    refreshLatencyWatches();
    monitor_.start();
    watchSoundServer();
    startGuard();
    startMixer();
    placeNewRows();
}

AppModel::~AppModel() {
    // Its forced mutes end on the rows, which must still be here.
    calibrator_.reset();
    *nowPlayingAlive_ = false;
    nowPlaying_.reset();
    // Cast senders render from the engine on their own threads.
    castSupervisor_.reset();
    castBrowser_.reset();
    airplayBrowser_.reset();
    // Senders render from the engine on their pump threads.
    airplay_.reset();
    // The guests' senders render from the engine on their own threads.
    guestParty_.reset();
    guestServer_.reset();
    guard_.reset();
    telemetryTimer_.reset();
    rateRestart_.reset();
    soundServer_.stop();
    monitor_.stop();
    latencyWatcher_.stop();
    engine_.reset();
}

void AppModel::installCallbacks() {
    engine_->onSlotStateChanged = [this](int slot, bool open) {
        if (validSlot(slot) < 0) return;
        rows_[slot].connected = open;
        if (open) rows_[slot].failedToOpen = false;
    };
    engine_->onSlotFailed = [this](int slot, int) {
        if (validSlot(slot) >= 0) rows_[slot].failedToOpen = true;
    };
    engine_->onCaptureRateChanged = [this](double) { captureRateChanged(); };

    monitor_.onDeviceListChanged = [this] { deviceListChanged(); };
    latencyWatcher_.onChange = [this](platform::DeviceId id) {
        std::optional<platform::SinkInfo> sink = backend_.sinkById(id);
        if (!sink) return;
        for (int slot = 0; slot < int(rows_.size()); ++slot)
            if (rows_[slot].deviceUID == sink->name) seedReportedLatency(slot);
    };
}

void AppModel::startGuard() {
    guard::GuardHooks hooks;
    hooks.isRunning = [this] { return isRunning_; };
    hooks.hasEnabledRow = [this] {
        return std::any_of(rows_.begin(), rows_.end(),
                           [](const RowState& r) { return !r.disabled; });
    };
    hooks.holdNetworkRows = [this] {
        for (RowState& r : rows_)
            if (r.airplayID || r.castID) r.heldAfterRestart = true;
    };
    hooks.releaseHeldRows = [this] {
        for (RowState& r : rows_) r.heldAfterRestart = false;
    };
    hooks.startStop = [this] { startStop(); };
    hooks.restored = [this](const guard::RestoredOutput& r) { restoredOutput_ = r; };
    guard_ = std::make_unique<guard::OutputGuard>(main_, restorer_, std::move(hooks), launched_);
    guard_->start();
}

void AppModel::loadRows() {
    const int count = settings_.outputCount();
    for (int n = 0; n < count; ++n) {
        RowState row = rowFromStored(settings_.loadOutput(n), newRowId(), n);
        if (auto key = row.memoryKey()) row.customName = settings_.customName(*key);
        rows_.push_back(std::move(row));
    }
    normaliseOrder();
    for (int slot = 0; slot < int(rows_.size()); ++slot) pushRow(slot);
    for (int slot = 0; slot < int(rows_.size()); ++slot) seedReportedLatency(slot);
    pushDelays();
}

// ---------------------------------------------------------------- observed

std::vector<ShownRow> AppModel::displayRows() const {
    std::vector<ShownRow> shown;
    for (int slot = 0; slot < int(rows_.size()); ++slot) shown.push_back({slot, rows_[slot]});
    std::stable_sort(shown.begin(), shown.end(), [](const ShownRow& a, const ShownRow& b) {
        return a.row.order < b.row.order;
    });
    return shown;
}

int AppModel::regularRowCount() const {
    return int(
        std::count_if(rows_.begin(), rows_.end(), [](const RowState& r) { return !r.isGuest(); }));
}

int AppModel::slotOf(RowId id) const {
    for (int slot = 0; slot < int(rows_.size()); ++slot)
        if (rows_[slot].id == id) return slot;
    return -1;
}

std::vector<AudioDevice> AppModel::addableDevices() const {
    std::vector<AudioDevice> out;
    for (const AudioDevice& d : outputDevices_) {
        bool used = std::any_of(rows_.begin(), rows_.end(),
                                [&](const RowState& r) { return r.deviceUID == d.uid; });
        if (!used) out.push_back(d);
    }
    return out;
}

std::optional<AudioDevice> AppModel::deviceOf(const RowState& row) const {
    if (!row.deviceUID) return std::nullopt;
    for (const AudioDevice& d : outputDevices_)
        if (d.uid == *row.deviceUID) return d;
    return std::nullopt;
}

// ---------------------------------------------------------------- devices

void AppModel::deviceListChanged() {
    outputDevices_ = AudioDevices::outputs(backend_);
    refreshCaptureAvailable();
    refreshDeviceNames();
    engine_->handleDeviceListChange();
    refreshLatencyWatches();
}

void AppModel::refreshDeviceNames() {
    for (int slot = 0; slot < int(rows_.size()); ++slot) {
        RowState& row = rows_[slot];
        std::optional<AudioDevice> device = deviceOf(row);
        if (device && row.deviceName != device->name) {
            row.deviceName = device->name;
            persist(slot);
        }
    }
}

void AppModel::refreshLatencyWatches() {
    std::vector<platform::DeviceId> ids;
    for (const RowState& row : rows_)
        if (auto device = deviceOf(row)) ids.push_back(device->id);
    latencyWatcher_.watch(ids);
}

void AppModel::refreshCaptureAvailable() {
    // Nothing is installed here: the capture sink is a null sink made on the
    // sound server at start. So it is available while a server answers and
    // has not refused to make it, or while it is there already.
    captureSinkPresent_ = guard::findCaptureSink(backend_.sinks()).has_value() ||
                          (backend_.connected() && !captureRefused_);
}

namespace {

// The latency a sink reports that its playback timing does not already
// hold. The sound server's timing says when each frame is heard, the sink's
// own latency included, and the engine schedules by that timing: adding the
// reported figure again would count it twice. So nothing is left over here,
// and a value seeded by an earlier run is taken back to 0.
double latencyBeyondStreamTimingMs(const AudioDevice&) {
    return 0.0;
}

}  // namespace

double AppModel::reportedLatency(int slot) const {
    if (validSlot(slot) < 0) return 0;
    const RowState& row = rows_[slot];
    if (!row.isDevice()) return row.streamLatencyMs;
    std::optional<AudioDevice> device = deviceOf(row);
    return device ? latencyBeyondStreamTimingMs(*device) : 0.0;
}

void AppModel::seedReportedLatency(int slot) {
    if (validSlot(slot) < 0 || !rows_[slot].isDevice()) return;
    RowState& row = rows_[slot];
    std::optional<AudioDevice> device = deviceOf(row);
    std::optional<double> reported;
    if (device) reported = latencyBeyondStreamTimingMs(*device);
    std::optional<double> seeded = devices::ReportedLatency::seeded(
        reported, row.measuredLatencyMs, row.latencySource == settings::LatencySource::reported,
        settings::isMeasuredByPerson(row.latencySource), row.delayMs);
    if (!seeded) return;
    row.measuredLatencyMs = *seeded;
    row.latencySource =
        *seeded > 0 ? settings::LatencySource::reported : settings::LatencySource::none;
    pushDelays();
    persist(slot);
}

// ---------------------------------------------------------------- start, stop

void AppModel::startStop() {
    if (isRunning_)
        stop();
    else
        start();
}

void AppModel::shutDown() {
    stopFly();
    if (isRunning_) startStop();
    shutDownMixer();
    guard_.reset();
}

void AppModel::start() {
    try {
        restorer_.prepareCaptureSink();
        engine_->start();
        restorer_.takeOutput();
    } catch (const std::exception& e) {
        engine_->stop();
        restorer_.restore();
        startError_ = e.what();
        if (const auto* ee = dynamic_cast<const engine::EngineError*>(&e);
            ee && ee->kind() == engine::EngineError::Kind::captureSinkMissing)
            captureRefused_ = true;
        refreshCaptureAvailable();
        return;
    }
    startGuestServerIfNeeded();
    if (guestParty_) guestParty_->play();
    isRunning_ = true;
    if (!settings_.hasSent()) settings_.setHasSent(true);
    startError_.reset();
    restoredOutput_.reset();
    captureRefused_ = false;
    refreshCaptureAvailable();
    startTelemetry();
    if (airplay_) airplay_->engineStarted();
    reconcileAirPlaySenders();
    reconcileCastSenders();
}

void AppModel::stop() {
    endCalibration();
    stopFly();
    if (guestParty_) guestParty_->pause();
    stopCastSenders();
    if (airplay_) airplay_->engineStopped();
    engine_->stop();
    restorer_.restore();
    isRunning_ = false;
    stopTelemetry();
}

void AppModel::captureRateChanged() {
    if (!isRunning_ || restartForRatePending_) return;
    restartForRatePending_ = true;
    // Out of the engine's callback first: the stop tears down what called us.
    main_.post([this] {
        if (isRunning_) startStop();
        rateRestart_ = main_.postAfter(rateRestartSeconds, [this] {
            restartForRatePending_ = false;
            if (!isRunning_) startStop();
        });
    });
}

// ---------------------------------------------------------------- telemetry

void AppModel::startTelemetry() {
    telemetryTimer_ = main_.repeat(telemetrySeconds, [this] { tick(); });
}

void AppModel::stopTelemetry() {
    telemetryTimer_.reset();
    if (debugLog_) debugLog_->close();
    masterEQClippedAt_.reset();
    for (RowState& row : rows_) {
        row.ppm = 0;
        row.primed = false;
        row.primedSince.reset();
        row.measureHintDue = false;
    }
}

void AppModel::tick() {
    if (!isRunning_) return;
    const double now = main_.now();
    restorer_.noteSystemVolume();
    bool lateMoved = false;
    std::vector<settings::DriftSample> drift;
    for (int slot = 0; slot < int(rows_.size()); ++slot) {
        RowState& row = rows_[slot];
        engine::MultiOutputEngine::Telemetry t = engine_->telemetry(slot);
        row.ppm = std::round(t.ppm);
        drift.push_back({t.ppm, t.fillErrMs});

        const double late = engine_->lateMs(slot);
        if (std::fabs(late - row.engineLateMs) >= 1.0) {
            row.engineLateMs = late;
            lateMoved = true;
        }
        const bool primed = re_engine_primed(engine_->ringEngine(), slot) != 0;
        if (primed != row.primed) {
            row.primed = primed;
            row.primedSince = primed ? std::optional(now) : std::nullopt;
        }
        if (!row.measureHintDue && row.primedSince && now - *row.primedSince > measureHintSeconds)
            row.measureHintDue = true;
        if (engine_->takeEQClip(slot)) row.eqClippedAt = now;
        if (row.isDevice()) row.starting = engine_->isOpening(slot);
        if (row.connectingSince && now - *row.connectingSince > connectStallSeconds)
            row.connectStalled = true;
    }
    if (lateMoved) pushDelays();
    if (engine_->takeMasterEQClip()) masterEQClippedAt_ = now;

    if (debugLog_ && settings_.debugLog()) {
        const double unix =
            std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
                .count();
        debugLog_->append(settings::driftLine(unix, drift));
    }
}

}  // namespace vt::model
