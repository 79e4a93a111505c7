#include "devices/audio_device.h"

#include <gtest/gtest.h>

#include "devices/sink_transport.h"

namespace vt::devices {
namespace {

TEST(DeviceKind, FollowsTransportThenName) {
    EXPECT_EQ(kind("bltn", "MacBook Pro Speakers"), DeviceKind::builtin);
    EXPECT_EQ(kind("bltn", "External Headphones"), DeviceKind::headphones);
    // Over HDMI or DisplayPort a device is a display whatever its name.
    EXPECT_EQ(kind("hdmi", "Headphones"), DeviceKind::display);
    EXPECT_EQ(kind("dprt", "LG UltraFine"), DeviceKind::display);
    // Wireless: earbuds before headphones before speaker.
    EXPECT_EQ(kind("blue", "Sam's AirPods Pro"), DeviceKind::earbuds);
    EXPECT_EQ(kind("blue", "Galaxy Buds headset"), DeviceKind::earbuds);
    EXPECT_EQ(kind("blea", "WH-1000XM4 Headphones"), DeviceKind::headphones);
    EXPECT_EQ(kind("airp", "Kitchen"), DeviceKind::speaker);
    EXPECT_EQ(kind("virt", "Living"), DeviceKind::speaker);  // not a cable: the wireless group
    // Wired: display words, then earbuds, headphones, else interface.
    EXPECT_EQ(kind("usb ", "USB Audio Headset"), DeviceKind::headphones);
    EXPECT_EQ(kind("usb ", "Studio Display Speakers"), DeviceKind::display);
    EXPECT_EQ(kind("usb ", "Scarlett 2i2"), DeviceKind::interface);
    EXPECT_EQ(kind("thun", "Wired EarPhones"), DeviceKind::earbuds);
}

TEST(DeviceKind, RawValuesRoundTrip) {
    for (auto k : {DeviceKind::builtin, DeviceKind::speaker, DeviceKind::display,
                   DeviceKind::earbuds, DeviceKind::headphones, DeviceKind::interface})
        EXPECT_EQ(deviceKindFromRaw(rawValue(k)), k);
    EXPECT_EQ(rawValue(DeviceKind::headphones), "headphones");
    EXPECT_FALSE(deviceKindFromRaw("toaster"));
}

TEST(AudioDevice, LabelsForTransportAndRate) {
    EXPECT_EQ(transportLabel("blea"), "Bluetooth");
    EXPECT_EQ(transportLabel("virt"), "Virtual");
    EXPECT_EQ(transportLabel("zzzz"), "Audio");
    EXPECT_EQ(transportLabel(""), "Audio");
    EXPECT_EQ(rateLabel(48000), "48 kHz");
    EXPECT_EQ(rateLabel(44100), "44.1 kHz");
    EXPECT_EQ(rateLabel(88200), "88.2 kHz");
    AudioDevice d;
    d.transportType = "usb ";
    d.sampleRate = 96000;
    EXPECT_EQ(d.meta(), "USB · 96 kHz");
}

platform::SinkInfo sink(std::map<std::string, std::string> props, std::string driver = "",
                        std::string port = "") {
    platform::SinkInfo s;
    s.properties = std::move(props);
    s.driver = std::move(driver);
    s.activePort = std::move(port);
    return s;
}

TEST(SinkTransport, DerivedFromTheServersProperties) {
    EXPECT_EQ(transportCode(sink({}, "module-null-sink.c")), "virt");
    EXPECT_EQ(transportCode(sink({{"factory.name", "support.null-audio-sink"}})), "virt");
    EXPECT_EQ(transportCode(sink({}, "module-combine-sink.c")), "grup");
    EXPECT_EQ(transportCode(sink({{"device.api", "raop"}}, "module-raop-sink.c")), "airp");
    EXPECT_EQ(transportCode(sink({{"device.bus", "bluetooth"}, {"device.api", "bluez"}})), "blue");
    EXPECT_EQ(transportCode(sink({{"device.api", "bluez5"}})), "blue");
    EXPECT_EQ(
        transportCode(sink({{"device.bus", "usb"}, {"device.profile.name", "analog-stereo"}})),
        "usb ");
    EXPECT_EQ(transportCode(sink({{"device.bus", "pci"}}, "module-alsa-card.c", "hdmi-output-0")),
              "hdmi");
    EXPECT_EQ(transportCode(sink({{"device.bus", "pci"}, {"device.form_factor", "internal"}},
                                 "module-alsa-card.c", "analog-output-speaker")),
              "bltn");
    EXPECT_EQ(transportCode(sink({})), "");
}

}  // namespace
}  // namespace vt::devices
