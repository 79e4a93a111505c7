#include "platform/pulse/pulse_convert.h"

#include <gtest/gtest.h>

namespace vt::platform::pulse {
namespace {

TEST(NullSinkArguments, CarryTheFormatAndAQuotedDescription) {
    EXPECT_EQ(nullSinkArguments("vellatone", "Vellatone", 48000, 2, true),
              "sink_name=vellatone rate=48000 channels=2 format=float32le "
              "sink_properties=\"device.description='Vellatone' vellatone.sink=1 "
              "device.routes=1 state.restore-props=false state.restore-target=false\"");
    EXPECT_EQ(nullSinkArguments("den", "Den Speaker", 44100, 2, false),
              "sink_name=den rate=44100 channels=2 "
              "sink_properties=\"device.description='Den Speaker' vellatone.sink=1 "
              "device.routes=1 state.restore-props=false state.restore-target=false\"");
}

TEST(NullSinkArguments, NothingCanBreakOutOfTheQuoting) {
    std::string args = nullSinkArguments("a b;c'd", "It's \"x\" \\ y\n", 48000, 2, true);
    EXPECT_EQ(args,
              "sink_name=abcd rate=48000 channels=2 format=float32le "
              "sink_properties=\"device.description='Its x  y' vellatone.sink=1 "
              "device.routes=1 state.restore-props=false state.restore-target=false\"");
}

TEST(SinkInfoOf, TakesLatencyVolumeAndProperties) {
    pa_sink_info info{};
    info.index = 7;
    info.name = "living";
    info.description = "Living";
    info.sample_spec = {PA_SAMPLE_FLOAT32LE, 44100, 2};
    info.monitor_source_name = "living.monitor";
    info.owner_module = 3;
    info.driver = "module-null-sink.c";
    info.latency = 0;
    info.configured_latency = 25000;
    pa_cvolume_set(&info.volume, 2, PA_VOLUME_NORM / 2);
    pa_proplist* props = pa_proplist_new();
    pa_proplist_sets(props, "device.bus", "usb");
    pa_proplist_sets(props, "device.profile.name", "analog-stereo");
    info.proplist = props;

    SinkInfo s = sinkInfoOf(info);
    pa_proplist_free(props);
    EXPECT_EQ(s.id, 7u);
    EXPECT_EQ(s.name, "living");
    EXPECT_EQ(s.description, "Living");
    EXPECT_DOUBLE_EQ(s.sampleRate, 44100);
    EXPECT_DOUBLE_EQ(s.latencyMs, 25.0);  // falls back to the configured latency
    EXPECT_NEAR(s.volumeScalar, 0.5, 1e-4);
    EXPECT_NEAR(s.volumeLinear, 0.125, 1e-3);  // the cube law
    EXPECT_EQ(s.properties.at("device.bus"), "usb");
    EXPECT_EQ(s.activeProfile, "analog-stereo");
    EXPECT_EQ(s.monitorSource, "living.monitor");
    EXPECT_EQ(s.ownerModule, 3u);
}

}  // namespace
}  // namespace vt::platform::pulse
