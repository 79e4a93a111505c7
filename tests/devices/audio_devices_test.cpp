#include "devices/audio_devices.h"

#include <gtest/gtest.h>

#include <cmath>

#include "devices/system_output.h"
#include "platform/fake/fake_audio_backend.h"

namespace vt::devices {
namespace {

using platform::FakeAudioBackend;

std::vector<std::string> uids(const std::vector<AudioDevice>& ds) {
    std::vector<std::string> out;
    for (const auto& d : ds) out.push_back(d.uid);
    return out;
}

TEST(AudioDevices, CaptureDeviceAndMixerDevicesAreNeverOutputs) {
    FakeAudioBackend fake;
    fake.addSink("living", "Living");
    fake.loadNullSink("vellatone", "Vellatone", 48000, 2, true);
    fake.addSink("com.kessor.vellatone.mixer.1", "Mixer");
    fake.addSink("nochannels", "No Channels");
    fake.changeSink("nochannels", [](auto& s) { s.channels = 0; });

    EXPECT_EQ(uids(AudioDevices::all(fake)),
              (std::vector<std::string>{"living", "vellatone", "nochannels"}));
    EXPECT_EQ(AudioDevices::deviceIDs(fake).size(), 4u);
    EXPECT_EQ(AudioDevices::visibleDeviceIDs(fake).size(), 3u);
    EXPECT_EQ(uids(AudioDevices::outputs(fake)), (std::vector<std::string>{"living"}));
    EXPECT_EQ(AudioDevices::captureDevice(AudioDevices::all(fake))->uid, "vellatone");
}

TEST(AudioDevices, TheCaptureSinkIsFoundByNameOrShownName) {
    std::vector<AudioDevice> list(2);
    list[0].uid = "living";
    list[0].name = "Living";
    list[1].uid = "vellatone";
    list[1].name = "Something";
    EXPECT_EQ(AudioDevices::captureDevice(list)->uid, "vellatone");
    list[1].uid = "other";
    EXPECT_FALSE(AudioDevices::captureDevice(list));
    list[1].name = "Vellatone";
    EXPECT_EQ(AudioDevices::captureDevice(list)->uid, "other");
}

TEST(AudioDevices, VolumesAndTheirEdges) {
    FakeAudioBackend fake;
    auto id = fake.addSink("den", "Den");
    EXPECT_TRUE(AudioDevices::setVolume(fake, id, 0.5));
    EXPECT_NEAR(*AudioDevices::volume(fake, id), 0.5, 1e-12);
    EXPECT_NEAR(*AudioDevices::volumeLinear(fake, id), 0.125, 1e-12);
    // Out of range writes are clamped.
    EXPECT_TRUE(AudioDevices::setVolume(fake, id, 7));
    EXPECT_DOUBLE_EQ(*AudioDevices::volume(fake, id), 1.0);
    // -63.5 dB and below read as silence; just above does not.
    fake.changeSink("den", [](auto& s) { s.volumeLinear = std::pow(10.0, -63.5 / 20); });
    EXPECT_EQ(*AudioDevices::volumeLinear(fake, id), 0.0);
    fake.changeSink("den", [](auto& s) { s.volumeLinear = std::pow(10.0, -63.4 / 20); });
    EXPECT_GT(*AudioDevices::volumeLinear(fake, id), 0.0);
    // Without a settable volume there is none to read and the slot uses software gain.
    fake.changeSink("den", [](auto& s) { s.hasVolume = false; });
    EXPECT_FALSE(AudioDevices::volume(fake, id));
    EXPECT_FALSE(AudioDevices::volumeLinear(fake, id));
    EXPECT_FALSE(AudioDevices::setVolume(fake, id, 0.3));
    EXPECT_FALSE(AudioDevices::volume(fake, 999));
}

TEST(AudioDevices, ReportedLatencyNeedsARate) {
    FakeAudioBackend fake;
    auto id = fake.addSink("den", "Den");
    fake.setSinkLatencyMs("den", 23.5);
    EXPECT_DOUBLE_EQ(AudioDevices::reportedLatencyMs(fake, id), 23.5);
    fake.setSinkRate("den", 0);
    EXPECT_DOUBLE_EQ(AudioDevices::reportedLatencyMs(fake, id), 0.0);
    EXPECT_DOUBLE_EQ(AudioDevices::reportedLatencyMs(fake, 999), 0.0);
}

TEST(SystemOutput, IsTheDefaultSink) {
    FakeAudioBackend fake;
    auto living = fake.addSink("living", "Living");
    auto den = fake.addSink("den", "Den");
    EXPECT_FALSE(SystemOutput::defaultOutput(fake));
    fake.setDefaultSinkByUser("living");
    EXPECT_EQ(SystemOutput::defaultOutput(fake), living);
    EXPECT_TRUE(SystemOutput::setSystemOutput(fake, den));
    EXPECT_EQ(SystemOutput::defaultOutput(fake), den);
    EXPECT_EQ(SystemOutput::systemOutput(fake), den);
    EXPECT_FALSE(SystemOutput::setDefaultOutput(fake, 999));
    fake.setDefaultSinkByUser("gone");  // a default that names no sink reads as none
    EXPECT_FALSE(SystemOutput::defaultOutput(fake));
}

}  // namespace
}  // namespace vt::devices
