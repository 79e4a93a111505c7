#include "platform/fake/fake_audio_backend.h"

#include <algorithm>
#include <cmath>

namespace vt::platform {

struct FakeAudioBackend::Streams {
    struct Entry {
        StreamInfo info;
        CaptureCallback capture = nullptr;
        PlaybackCallback playback = nullptr;
        void* clientData = nullptr;
    };
    // Held while a callback runs, so that closing a stream waits for it.
    mutable std::mutex mutex;
    std::vector<Entry> entries;
    uint64_t nextId = 1;

    Entry* find(uint64_t id) {
        for (auto& e : entries)
            if (e.info.id == id) return &e;
        return nullptr;
    }
};

namespace {

class FakeStream final : public Stream {
  public:
    FakeStream(std::shared_ptr<FakeAudioBackend::Streams> streams, uint64_t id, double rate)
        : streams_(std::move(streams)), id_(id), rate_(rate) {}
    ~FakeStream() override {
        std::lock_guard lock(streams_->mutex);
        std::erase_if(streams_->entries, [this](const auto& e) { return e.info.id == id_; });
    }
    double sampleRate() const override { return rate_; }

  private:
    std::shared_ptr<FakeAudioBackend::Streams> streams_;
    uint64_t id_;
    double rate_;
};

double cube(double x) {
    return x * x * x;
}

}  // namespace

FakeAudioBackend::FakeAudioBackend() : streams_(std::make_shared<Streams>()) {}

FakeAudioBackend::~FakeAudioBackend() = default;

// ---- script: state

void FakeAudioBackend::setConnected(bool connected) {
    std::lock_guard lock(mutex_);
    connected_ = connected;
    reachable_ = connected;
}

void FakeAudioBackend::serverDies() {
    {
        std::lock_guard lock(mutex_);
        connected_ = false;
        reachable_ = false;
        for (const auto& [module, name] : modules_)
            std::erase_if(sinks_, [&](const SinkInfo& s) { return s.ownerModule == module; });
        modules_.clear();
        inputs_.clear();
        defaultSink_.reset();
    }
    notify(ChangeKind::connection);
    notify(ChangeKind::sinks);
    notify(ChangeKind::sinkInputs);
    notify(ChangeKind::server);
}

void FakeAudioBackend::serverReturns() {
    std::lock_guard lock(mutex_);
    reachable_ = true;
}

int FakeAudioBackend::reconnectAttempts() const {
    std::lock_guard lock(mutex_);
    return reconnectAttempts_;
}

void FakeAudioBackend::setServerName(std::string name) {
    std::lock_guard lock(mutex_);
    serverName_ = std::move(name);
}

bool FakeAudioBackend::reconnect() {
    {
        std::lock_guard lock(mutex_);
        if (connected_) return true;
        ++reconnectAttempts_;
        if (!reachable_) return false;
        connected_ = true;
    }
    notify(ChangeKind::connection);
    notify(ChangeKind::sinks);
    notify(ChangeKind::sinkInputs);
    notify(ChangeKind::server);
    return true;
}

std::string FakeAudioBackend::serverName() const {
    std::lock_guard lock(mutex_);
    return serverName_;
}

double FakeAudioBackend::volumeToLinear(double scalar) const {
    return std::isfinite(scalar) && scalar > 0 ? cube(scalar) : 0.0;
}

double FakeAudioBackend::volumeFromLinear(double linear) const {
    return std::isfinite(linear) && linear > 0 ? std::cbrt(linear) : 0.0;
}

DeviceId FakeAudioBackend::addSink(SinkInfo info) {
    DeviceId id;
    {
        std::lock_guard lock(mutex_);
        if (SinkInfo* old = findLocked(info.name)) {
            if (info.id == kNoDevice) info.id = old->id;
            std::erase_if(sinks_, [&](const SinkInfo& s) { return s.name == info.name; });
        }
        if (info.id == kNoDevice) info.id = nextSinkId_++;
        nextSinkId_ = std::max(nextSinkId_, info.id + 1);
        if (info.monitorSource.empty()) info.monitorSource = info.name + ".monitor";
        if (info.channels == 0) info.channels = 2;
        id = info.id;
        sinks_.push_back(std::move(info));
    }
    notify(ChangeKind::sinks);
    return id;
}

DeviceId FakeAudioBackend::addSink(const std::string& name, const std::string& description,
                                   double rate, std::map<std::string, std::string> properties) {
    SinkInfo info;
    info.name = name;
    info.description = description;
    info.sampleRate = rate;
    info.properties = std::move(properties);
    return addSink(std::move(info));
}

bool FakeAudioBackend::removeSink(const std::string& name) {
    {
        std::lock_guard lock(mutex_);
        if (std::erase_if(sinks_, [&](const SinkInfo& s) { return s.name == name; }) == 0)
            return false;
    }
    notify(ChangeKind::sinks);
    return true;
}

bool FakeAudioBackend::changeSink(const std::string& name,
                                  const std::function<void(SinkInfo&)>& change) {
    {
        std::lock_guard lock(mutex_);
        SinkInfo* s = findLocked(name);
        if (!s) return false;
        change(*s);
    }
    notify(ChangeKind::sinks);
    return true;
}

bool FakeAudioBackend::setSinkRate(const std::string& name, double rate) {
    return changeSink(name, [rate](SinkInfo& s) { s.sampleRate = rate; });
}

bool FakeAudioBackend::setSinkLatencyMs(const std::string& name, double ms) {
    return changeSink(name, [ms](SinkInfo& s) { s.latencyMs = ms; });
}

bool FakeAudioBackend::setSinkVolumeByUser(const std::string& name, double scalar) {
    return changeSink(name, [scalar](SinkInfo& s) {
        s.volumeScalar = scalar;
        s.volumeLinear = cube(scalar);
    });
}

void FakeAudioBackend::setDefaultSinkByUser(std::optional<std::string> name) {
    {
        std::lock_guard lock(mutex_);
        defaultSink_ = std::move(name);
    }
    notify(ChangeKind::server);
}

uint32_t FakeAudioBackend::addSinkInput(SinkInputInfo info) {
    uint32_t index;
    {
        std::lock_guard lock(mutex_);
        if (info.index == UINT32_MAX) info.index = nextInputIndex_++;
        index = info.index;
        std::erase_if(inputs_, [&](const SinkInputInfo& i) { return i.index == index; });
        inputs_.push_back(std::move(info));
    }
    notify(ChangeKind::sinkInputs);
    return index;
}

bool FakeAudioBackend::removeSinkInput(uint32_t index) {
    {
        std::lock_guard lock(mutex_);
        if (std::erase_if(inputs_, [&](const SinkInputInfo& i) { return i.index == index; }) == 0)
            return false;
    }
    notify(ChangeKind::sinkInputs);
    return true;
}

void FakeAudioBackend::setAutoNotify(bool on) {
    std::lock_guard lock(mutex_);
    autoNotify_ = on;
}

void FakeAudioBackend::fireChange(ChangeKind kind) {
    std::function<void(ChangeKind)> handler;
    {
        std::lock_guard lock(handlerMutex_);
        handler = handler_;
    }
    if (handler) handler(kind);
    notifyChangeListeners(kind);
}

void FakeAudioBackend::notify(ChangeKind kind) {
    bool on;
    {
        std::lock_guard lock(mutex_);
        on = autoNotify_;
    }
    if (on) fireChange(kind);
}

// ---- script: failures

void FakeAudioBackend::failOpens(const std::string& device, int status) {
    std::lock_guard lock(mutex_);
    openFailures_[device] = status;
}

void FakeAudioBackend::clearOpenFailures() {
    std::lock_guard lock(mutex_);
    openFailures_.clear();
}

void FakeAudioBackend::failWrites(bool fail) {
    std::lock_guard lock(mutex_);
    failWrites_ = fail;
}

void FakeAudioBackend::failLoadModule(bool fail) {
    std::lock_guard lock(mutex_);
    failLoad_ = fail;
}

std::optional<int> FakeAudioBackend::openFailureLocked(const std::string& device) const {
    if (auto it = openFailures_.find(device); it != openFailures_.end()) return it->second;
    if (auto it = openFailures_.find(""); it != openFailures_.end()) return it->second;
    return std::nullopt;
}

SinkInfo* FakeAudioBackend::findLocked(const std::string& name) {
    for (auto& s : sinks_)
        if (s.name == name) return &s;
    return nullptr;
}

// ---- streams

std::vector<FakeAudioBackend::StreamInfo> FakeAudioBackend::streams() const {
    std::lock_guard lock(streams_->mutex);
    std::vector<StreamInfo> out;
    for (const auto& e : streams_->entries) out.push_back(e.info);
    return out;
}

size_t FakeAudioBackend::playbackCount(const std::string& sinkName) const {
    std::lock_guard lock(streams_->mutex);
    return static_cast<size_t>(
        std::count_if(streams_->entries.begin(), streams_->entries.end(),
                      [&](const auto& e) { return !e.info.capture && e.info.device == sinkName; }));
}

bool FakeAudioBackend::hasCapture() const {
    std::lock_guard lock(streams_->mutex);
    return std::any_of(streams_->entries.begin(), streams_->entries.end(),
                       [](const auto& e) { return e.info.capture; });
}

uint64_t FakeAudioBackend::opensAttempted() const {
    std::lock_guard lock(mutex_);
    return opensAttempted_;
}

bool FakeAudioBackend::pushCapture(const float* interleaved, uint32_t frames, double hostSec,
                                   std::optional<double> sampleTime, bool hostTimeValid) {
    std::vector<float> block(static_cast<size_t>(frames) * 2, 0.0f);
    if (interleaved) std::copy(interleaved, interleaved + block.size(), block.begin());

    std::lock_guard lock(streams_->mutex);
    for (auto& e : streams_->entries) {
        if (!e.info.capture) continue;
        e.capture(e.clientData, block.data(), frames, hostTimeValid ? hostSec : 0.0,
                  sampleTime ? *sampleTime : -1.0);
        e.info.framesMoved += frames;
        return true;
    }
    return false;
}

std::optional<std::vector<float>> FakeAudioBackend::pullPlayback(const std::string& sinkName,
                                                                 uint32_t frames, double presentSec,
                                                                 bool hostTimeValid) {
    uint64_t id = 0;
    {
        std::lock_guard lock(streams_->mutex);
        for (const auto& e : streams_->entries)
            if (!e.info.capture && e.info.device == sinkName) {
                id = e.info.id;
                break;
            }
    }
    if (id == 0) return std::nullopt;
    return pullPlayback(id, frames, presentSec, hostTimeValid);
}

std::optional<std::vector<float>> FakeAudioBackend::pullPlayback(uint64_t id, uint32_t frames,
                                                                 double presentSec,
                                                                 bool hostTimeValid) {
    std::lock_guard lock(streams_->mutex);
    Streams::Entry* e = streams_->find(id);
    if (!e || e->info.capture) return std::nullopt;
    std::vector<float> block(static_cast<size_t>(frames) * 2, 0.0f);
    e->playback(e->clientData, block.data(), frames, hostTimeValid ? presentSec : 0.0,
                static_cast<double>(e->info.framesMoved));
    e->info.framesMoved += frames;
    return block;
}

// ---- records

std::vector<FakeAudioBackend::VolumeWrite> FakeAudioBackend::volumeWrites() const {
    std::lock_guard lock(mutex_);
    return volumeWrites_;
}

std::vector<FakeAudioBackend::Move> FakeAudioBackend::moves() const {
    std::lock_guard lock(mutex_);
    return moves_;
}

std::vector<std::string> FakeAudioBackend::defaultSinkWrites() const {
    std::lock_guard lock(mutex_);
    return defaultWrites_;
}

std::map<uint32_t, std::string> FakeAudioBackend::loadedModules() const {
    std::lock_guard lock(mutex_);
    return modules_;
}

// ---- AudioBackend

bool FakeAudioBackend::connected() const {
    std::lock_guard lock(mutex_);
    return connected_;
}

std::vector<SinkInfo> FakeAudioBackend::sinks() {
    std::lock_guard lock(mutex_);
    if (!connected_) return {};
    return sinks_;
}

std::optional<SinkInfo> FakeAudioBackend::sinkByName(const std::string& name) {
    std::lock_guard lock(mutex_);
    if (!connected_) return std::nullopt;
    if (SinkInfo* s = findLocked(name)) return *s;
    return std::nullopt;
}

std::optional<SinkInfo> FakeAudioBackend::sinkById(DeviceId id) {
    std::lock_guard lock(mutex_);
    if (!connected_) return std::nullopt;
    for (const auto& s : sinks_)
        if (s.id == id) return s;
    return std::nullopt;
}

std::optional<std::string> FakeAudioBackend::defaultSinkName() {
    std::lock_guard lock(mutex_);
    if (!connected_) return std::nullopt;
    return defaultSink_;
}

std::vector<SinkInputInfo> FakeAudioBackend::sinkInputs() {
    std::lock_guard lock(mutex_);
    if (!connected_) return {};
    return inputs_;
}

bool FakeAudioBackend::setDefaultSink(const std::string& name) {
    {
        std::lock_guard lock(mutex_);
        if (!connected_ || failWrites_ || !findLocked(name)) return false;
        defaultSink_ = name;
        defaultWrites_.push_back(name);
    }
    notify(ChangeKind::server);
    return true;
}

bool FakeAudioBackend::setSinkVolume(DeviceId id, double scalar) {
    {
        std::lock_guard lock(mutex_);
        if (!connected_ || failWrites_) return false;
        auto it = std::find_if(sinks_.begin(), sinks_.end(), [&](auto& s) { return s.id == id; });
        if (it == sinks_.end() || !it->hasVolume) return false;
        scalar = std::clamp(std::isfinite(scalar) ? scalar : 0.0, 0.0, 1.5);
        it->volumeScalar = scalar;
        it->volumeLinear = cube(scalar);
        volumeWrites_.push_back({id, scalar});
    }
    notify(ChangeKind::sinks);
    return true;
}

bool FakeAudioBackend::moveSinkInput(uint32_t index, const std::string& sinkName) {
    {
        std::lock_guard lock(mutex_);
        if (!connected_ || failWrites_) return false;
        SinkInfo* sink = findLocked(sinkName);
        auto it =
            std::find_if(inputs_.begin(), inputs_.end(), [&](auto& i) { return i.index == index; });
        if (!sink || it == inputs_.end() || it->ours) return false;
        it->sink = sink->id;
        moves_.push_back({index, sinkName});
    }
    notify(ChangeKind::sinkInputs);
    return true;
}

bool FakeAudioBackend::setSinkInputVolume(uint32_t index, double linear) {
    {
        std::lock_guard lock(mutex_);
        if (!connected_ || failWrites_) return false;
        auto it =
            std::find_if(inputs_.begin(), inputs_.end(), [&](auto& i) { return i.index == index; });
        if (it == inputs_.end()) return false;
        it->volumeLinear = std::max(0.0, linear);
    }
    notify(ChangeKind::sinkInputs);
    return true;
}

std::optional<uint32_t> FakeAudioBackend::loadNullSink(const std::string& name,
                                                       const std::string& description,
                                                       uint32_t rate, uint32_t channels,
                                                       bool float32) {
    SinkInfo info;
    uint32_t module;
    {
        std::lock_guard lock(mutex_);
        if (!connected_ || failLoad_ || findLocked(name)) return std::nullopt;
        module = nextModule_++;
        modules_[module] = name;
    }
    info.name = name;
    info.description = description;
    info.sampleRate = rate;
    info.channels = channels;
    info.driver = "module-null-sink.c";
    info.ownerModule = module;
    info.loadedByUs = true;
    info.properties = {{"device.class", "abstract"},
                       {"device.description", description},
                       {"format", float32 ? "float32le" : "s16le"},
                       {kOwnSinkProperty, "1"}};
    addSink(std::move(info));
    return module;
}

bool FakeAudioBackend::unloadModule(uint32_t index) {
    {
        std::lock_guard lock(mutex_);
        if (!connected_ || failWrites_) return false;
        auto it = modules_.find(index);
        if (it == modules_.end()) return false;
        modules_.erase(it);
        std::erase_if(sinks_, [&](const SinkInfo& s) { return s.ownerModule == index; });
    }
    notify(ChangeKind::sinks);
    return true;
}

void FakeAudioBackend::setChangeHandler(std::function<void(ChangeKind)> handler) {
    std::lock_guard lock(handlerMutex_);
    handler_ = std::move(handler);
}

StreamResult FakeAudioBackend::openCapture(const std::string& sourceName, uint32_t rate,
                                           CaptureCallback proc, void* clientData) {
    StreamResult result;
    {
        std::lock_guard lock(mutex_);
        ++opensAttempted_;
        bool exists = std::any_of(sinks_.begin(), sinks_.end(),
                                  [&](const SinkInfo& s) { return s.monitorSource == sourceName; });
        if (auto failure = openFailureLocked(sourceName)) {
            result.status = *failure;
        } else if (!connected_ || !exists) {
            result.status = kFakeErrorNoEntity;
        }
        if (result.status) {
            result.error = "No such entity";
            return result;
        }
    }
    std::lock_guard lock(streams_->mutex);
    Streams::Entry e;
    e.info.id = streams_->nextId++;
    e.info.capture = true;
    e.info.device = sourceName;
    e.info.requestedRate = rate;
    e.info.rate = rate ? rate : 48000;
    e.capture = proc;
    e.clientData = clientData;
    result.stream = std::make_unique<FakeStream>(streams_, e.info.id, e.info.rate);
    streams_->entries.push_back(std::move(e));
    return result;
}

StreamResult FakeAudioBackend::openPlayback(const std::string& sinkName, uint32_t rate,
                                            PlaybackCallback proc, void* clientData) {
    StreamResult result;
    double sinkRate = 0;
    {
        std::lock_guard lock(mutex_);
        ++opensAttempted_;
        SinkInfo* sink = findLocked(sinkName);
        if (auto failure = openFailureLocked(sinkName)) {
            result.status = *failure;
        } else if (!connected_ || !sink) {
            result.status = kFakeErrorNoEntity;
        } else {
            sinkRate = sink->sampleRate;
        }
        if (result.status) {
            result.error = "No such entity";
            return result;
        }
    }
    std::lock_guard lock(streams_->mutex);
    Streams::Entry e;
    e.info.id = streams_->nextId++;
    e.info.device = sinkName;
    e.info.requestedRate = rate;
    e.info.rate = rate ? rate : sinkRate;
    e.playback = proc;
    e.clientData = clientData;
    result.stream = std::make_unique<FakeStream>(streams_, e.info.id, e.info.rate);
    streams_->entries.push_back(std::move(e));
    return result;
}

}  // namespace vt::platform
