#include "devices/device_monitor.h"

#include <algorithm>
#include <cmath>

#include "devices/audio_devices.h"

namespace vt::devices {

ChangeHop::ChangeHop(platform::AudioBackend& backend, dispatch::MainQueue& main,
                     std::function<void()> onMain, platform::ChangeKind kind)
    : backend_(backend), shared_(std::make_shared<Shared>()) {
    shared_->onMain = std::move(onMain);
    std::weak_ptr<Shared> weak = shared_;
    dispatch::MainQueue* queue = &main;
    listener_ = backend_.addChangeListener([weak, queue, kind](platform::ChangeKind event) {
        if (event != kind) return;
        auto shared = weak.lock();
        if (!shared || shared->pending.exchange(true)) return;
        queue->post([weak] {
            auto s = weak.lock();
            if (!s) return;
            s->pending.store(false);
            if (s->alive.load() && s->onMain) s->onMain();
        });
    });
}

ChangeHop::~ChangeHop() {
    shared_->alive.store(false);
    backend_.removeChangeListener(listener_);
}

// ---------------------------------------------------------------- monitor

DeviceMonitor::DeviceMonitor(platform::AudioBackend& backend, dispatch::MainQueue& main)
    : backend_(backend), main_(main) {}

DeviceMonitor::~DeviceMonitor() {
    stop();
}

void DeviceMonitor::start() {
    if (hop_) return;
    last_ = snapshot();
    hop_ = std::make_unique<ChangeHop>(backend_, main_, [this] { check(); });
}

void DeviceMonitor::stop() {
    hop_.reset();
}

std::vector<std::string> DeviceMonitor::snapshot() {
    // Volume and latency changes arrive as sink changes too; only the set of
    // devices and their names are the device list.
    std::vector<std::string> keys;
    for (const auto& s : backend_.sinks())
        keys.push_back(std::to_string(s.id) + '\n' + s.name + '\n' + s.description);
    std::sort(keys.begin(), keys.end());
    return keys;
}

void DeviceMonitor::check() {
    auto now = snapshot();
    if (now == last_) return;
    last_ = std::move(now);
    if (onDeviceListChanged) onDeviceListChanged();
}

// ---------------------------------------------------------------- latency

LatencyWatcher::LatencyWatcher(platform::AudioBackend& backend, dispatch::MainQueue& main)
    : backend_(backend), main_(main) {}

LatencyWatcher::~LatencyWatcher() {
    stop();
}

void LatencyWatcher::watch(const std::vector<platform::DeviceId>& deviceIDs) {
    std::map<platform::DeviceId, double> next;
    for (auto id : deviceIDs) {
        auto it = watches_.find(id);
        next[id] =
            it != watches_.end() ? it->second : AudioDevices::reportedLatencyMs(backend_, id);
    }
    watches_ = std::move(next);
    if (watches_.empty()) {
        hop_.reset();
    } else if (!hop_) {
        hop_ = std::make_unique<ChangeHop>(backend_, main_, [this] { check(); });
    }
}

void LatencyWatcher::stop() {
    hop_.reset();
    watches_.clear();
}

std::vector<platform::DeviceId> LatencyWatcher::watched() const {
    std::vector<platform::DeviceId> ids;
    for (const auto& [id, ms] : watches_) ids.push_back(id);
    return ids;
}

void LatencyWatcher::check() {
    std::vector<platform::DeviceId> changed;
    for (auto& [id, last] : watches_) {
        double now = AudioDevices::reportedLatencyMs(backend_, id);
        if (std::fabs(now - last) >= kChangeMs || (now == 0) != (last == 0)) {
            last = now;
            changed.push_back(id);
        }
    }
    // The callback may change what is watched: call it after the walk.
    for (auto id : changed)
        if (onChange) onChange(id);
}

}  // namespace vt::devices
