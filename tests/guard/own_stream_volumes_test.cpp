#include "guard/own_stream_volumes.h"

#include <gtest/gtest.h>

#include "platform/fake/fake_audio_backend.h"

namespace vt::guard {
namespace {

class OwnStreamVolumesTest : public ::testing::Test {
  protected:
    OwnStreamVolumesTest() { living = backend.addSink("living", "Living"); }

    uint32_t addStream(bool ours, double volume) {
        platform::SinkInputInfo in;
        in.sink = living;
        in.ours = ours;
        in.volumeLinear = volume;
        return backend.addSinkInput(in);
    }
    double volumeOf(uint32_t index) {
        for (const auto& in : backend.sinkInputs())
            if (in.index == index) return in.volumeLinear;
        return -1;
    }

    platform::FakeAudioBackend backend;
    platform::DeviceId living = platform::kNoDevice;
    OwnStreamVolumes volumes{backend};
};

TEST_F(OwnStreamVolumesTest, AVolumeKeptFromAnEarlierStreamIsPutBackToFullOnce) {
    const uint32_t restored = addStream(true, 0.125);  // appears with the kept volume
    const uint32_t late = addStream(true, 1.0);        // the kept volume arrives later
    const uint32_t player = addStream(false, 0.125);   // not ours: never touched
    volumes.check(1.0);
    EXPECT_EQ(volumeOf(restored), 1.0);
    EXPECT_EQ(volumeOf(player), 0.125);

    backend.setSinkInputVolume(late, 0.125);
    volumes.check(1.1);
    EXPECT_EQ(volumeOf(late), 1.0);

    // Turned down by the user afterwards: theirs, for as long as it lives.
    backend.setSinkInputVolume(restored, 0.5);
    backend.setSinkInputVolume(late, 0.5);
    volumes.check(1.2);
    EXPECT_EQ(volumeOf(restored), 0.5);
    EXPECT_EQ(volumeOf(late), 0.5);
}

TEST_F(OwnStreamVolumesTest, AChangeAfterTheHoldIsTheUsers) {
    const uint32_t stream = addStream(true, 1.0);
    volumes.check(1.0);
    backend.setSinkInputVolume(stream, 0.5);
    volumes.check(1.0 + OwnStreamVolumes::kHoldSeconds + 0.1);
    EXPECT_EQ(volumeOf(stream), 0.5);

    // A stream opened again gets a hold of its own.
    backend.removeSinkInput(stream);
    volumes.check(10.0);
    const uint32_t reopened = addStream(true, 0.5);
    volumes.check(10.1);
    EXPECT_EQ(volumeOf(reopened), 1.0);
}

}  // namespace
}  // namespace vt::guard
