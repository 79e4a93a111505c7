#include "devices/device_monitor.h"

#include <gtest/gtest.h>

#include <thread>

#include "dispatch/virtual_main_queue.h"
#include "platform/fake/fake_audio_backend.h"

namespace vt::devices {
namespace {

using platform::FakeAudioBackend;

TEST(DeviceMonitor, CallsBackOnTheMainQueueOnlyForListChanges) {
    FakeAudioBackend fake;
    dispatch::VirtualMainQueue main;
    fake.addSink("living", "Living");
    DeviceMonitor monitor(fake, main);
    int calls = 0;
    monitor.onDeviceListChanged = [&] {
        EXPECT_TRUE(main.isMainThread());
        ++calls;
    };
    monitor.start();
    monitor.start();  // idempotent: still one listener

    fake.addSink("den", "Den");
    EXPECT_EQ(calls, 0);  // not before the main queue runs
    main.drain();
    EXPECT_EQ(calls, 1);

    fake.setSinkVolumeByUser("den", 0.3);  // a sink change that is no list change
    fake.setSinkLatencyMs("den", 40);
    main.drain();
    EXPECT_EQ(calls, 1);

    // A burst from another thread is one callback.
    std::thread t([&] {
        fake.removeSink("den");
        fake.addSink("kitchen", "Kitchen");
        fake.changeSink("kitchen", [](auto& s) { s.description = "Kitchen Speaker"; });
    });
    t.join();
    EXPECT_EQ(main.pendingTasks(), 1u);
    main.drain();
    EXPECT_EQ(calls, 2);

    monitor.stop();
    fake.removeSink("kitchen");
    main.drain();
    EXPECT_EQ(calls, 2);
}

TEST(DeviceMonitor, ATaskQueuedBeforeDestructionDoesNothing) {
    FakeAudioBackend fake;
    dispatch::VirtualMainQueue main;
    int calls = 0;
    {
        DeviceMonitor monitor(fake, main);
        monitor.onDeviceListChanged = [&] { ++calls; };
        monitor.start();
        fake.addSink("den", "Den");
    }
    main.drain();
    EXPECT_EQ(calls, 0);
}

TEST(LatencyWatcher, ReportsMovesOfWatchedDevicesOnly) {
    FakeAudioBackend fake;
    dispatch::VirtualMainQueue main;
    auto living = fake.addSink("living", "Living");
    auto den = fake.addSink("den", "Den");
    fake.setSinkLatencyMs("living", 10);
    LatencyWatcher watcher(fake, main);
    std::vector<platform::DeviceId> seen;
    watcher.onChange = [&](platform::DeviceId id) { seen.push_back(id); };
    watcher.watch({living});

    fake.setSinkLatencyMs("den", 80);       // not watched
    fake.setSinkLatencyMs("living", 10.4);  // below the step worth telling
    main.drain();
    EXPECT_TRUE(seen.empty());
    fake.setSinkLatencyMs("living", 25);
    main.drain();
    EXPECT_EQ(seen, (std::vector<platform::DeviceId>{living}));

    // Reconciling keeps what it already knows and adds the new one.
    watcher.watch({living, den});
    EXPECT_EQ(watcher.watched().size(), 2u);
    fake.setSinkLatencyMs("den", 30);
    main.drain();
    EXPECT_EQ(seen, (std::vector<platform::DeviceId>{living, den}));

    // A device that goes reports once (its latency reads 0 now).
    fake.removeSink("den");
    main.drain();
    EXPECT_EQ(seen.back(), den);
    EXPECT_EQ(seen.size(), 3u);

    watcher.stop();
    fake.setSinkLatencyMs("living", 90);
    main.drain();
    EXPECT_EQ(seen.size(), 3u);
}

}  // namespace
}  // namespace vt::devices
