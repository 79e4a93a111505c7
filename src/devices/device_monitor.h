// Turns the sound server's change events into main-queue callbacks: one when
// the set of devices changes, one for each watched device whose reported
// latency moves.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "dispatch/main_queue.h"
#include "platform/audio_backend.h"

namespace vt::devices {

// A coalescing hop from the backend's thread to the main queue: however many
// events arrive before the main queue gets to it, the task runs once, and
// never after the owner has gone.
class ChangeHop {
  public:
    ChangeHop(platform::AudioBackend& backend, dispatch::MainQueue& main,
              std::function<void()> onMain,
              platform::ChangeKind kind = platform::ChangeKind::sinks);
    ~ChangeHop();
    ChangeHop(const ChangeHop&) = delete;
    ChangeHop& operator=(const ChangeHop&) = delete;

  private:
    struct Shared {
        std::atomic<bool> pending{false};
        std::atomic<bool> alive{true};
        std::function<void()> onMain;
    };
    platform::AudioBackend& backend_;
    std::shared_ptr<Shared> shared_;
    uint64_t listener_ = 0;
};

// Main thread only.
class DeviceMonitor {
  public:
    DeviceMonitor(platform::AudioBackend& backend, dispatch::MainQueue& main);
    ~DeviceMonitor();

    // Called on the main queue when a device appears, goes, or is renamed.
    std::function<void()> onDeviceListChanged;

    void start();  // idempotent
    void stop();
    bool running() const { return hop_ != nullptr; }

  private:
    void check();
    std::vector<std::string> snapshot();

    platform::AudioBackend& backend_;
    dispatch::MainQueue& main_;
    std::unique_ptr<ChangeHop> hop_;
    std::vector<std::string> last_;
};

// Main thread only.
class LatencyWatcher {
  public:
    // A sink's reported latency is a live figure on this platform; smaller
    // movements than this are not news.
    static constexpr double kChangeMs = 1.0;

    LatencyWatcher(platform::AudioBackend& backend, dispatch::MainQueue& main);
    ~LatencyWatcher();

    std::function<void(platform::DeviceId)> onChange;

    // Watches exactly these devices from now on.
    void watch(const std::vector<platform::DeviceId>& deviceIDs);
    void stop();
    std::vector<platform::DeviceId> watched() const;

  private:
    void check();

    platform::AudioBackend& backend_;
    dispatch::MainQueue& main_;
    std::unique_ptr<ChangeHop> hop_;
    std::map<platform::DeviceId, double> watches_;  // device -> last latency seen
};

}  // namespace vt::devices
