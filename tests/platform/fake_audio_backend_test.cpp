#include "platform/fake/fake_audio_backend.h"

#include <gtest/gtest.h>

#include <vector>

namespace vt::platform {
namespace {

struct Seen {
    int calls = 0;
    uint32_t frames = 0;
    double hostSec = -1;
    double sampleTime = -1;
    float first = 0;
};

void captureProc(void* client, const float* frames, uint32_t count, double hostSec,
                 double streamFrame) {
    auto* s = static_cast<Seen*>(client);
    ++s->calls;
    s->frames = count;
    s->first = frames[0];
    s->hostSec = hostSec;
    s->sampleTime = streamFrame;
}

bool playbackProc(void* client, float* frames, uint32_t count, double presentSec,
                  double streamFrame) {
    auto* s = static_cast<Seen*>(client);
    ++s->calls;
    s->frames = count;
    s->hostSec = presentSec;
    s->sampleTime = streamFrame;
    for (uint32_t i = 0; i < count * 2; ++i) frames[i] = 0.25f;
    return true;
}

TEST(FakeAudioBackend, CaptureBlocksCarryTheTestsHostTimeAndSamples) {
    FakeAudioBackend fake;
    fake.loadNullSink("vellatone", "Vellatone", 48000, 2, true);
    Seen seen;
    EXPECT_FALSE(fake.pushCapture(nullptr, 512, 1.0));  // nothing open yet
    auto r = fake.openCapture("vellatone.monitor", 48000, captureProc, &seen);
    ASSERT_EQ(r.status, 0);
    ASSERT_TRUE(r.stream);
    EXPECT_DOUBLE_EQ(r.stream->sampleRate(), 48000);

    std::vector<float> block(2 * 256, 0.5f);
    ASSERT_TRUE(fake.pushCapture(block.data(), 256, 12.5, 1024.0));
    EXPECT_EQ(seen.frames, 256u);
    EXPECT_FLOAT_EQ(seen.first, 0.5f);
    EXPECT_NEAR(seen.hostSec, 12.5, 1e-9);
    EXPECT_DOUBLE_EQ(seen.sampleTime, 1024.0);

    ASSERT_TRUE(fake.pushCapture(nullptr, 128, 0, std::nullopt, false));
    EXPECT_EQ(seen.hostSec, 0.0) << "no time";
    EXPECT_LT(seen.sampleTime, 0.0) << "no stream position";
    EXPECT_FLOAT_EQ(seen.first, 0.0f);

    r.stream.reset();  // closing stops the callbacks
    EXPECT_FALSE(fake.pushCapture(nullptr, 128, 13.0));
    EXPECT_EQ(seen.calls, 2);
}

TEST(FakeAudioBackend, PlaybackRunsAtTheSinksRateAndIsPulledPerSink) {
    FakeAudioBackend fake;
    fake.addSink("kitchen", "Kitchen", 44100);
    Seen seen;
    auto r = fake.openPlayback("kitchen", 0, playbackProc, &seen);
    ASSERT_EQ(r.status, 0);
    EXPECT_DOUBLE_EQ(r.stream->sampleRate(), 44100);
    EXPECT_EQ(fake.playbackCount("kitchen"), 1u);
    auto block = fake.pullPlayback("kitchen", 441, 7.25);
    ASSERT_TRUE(block);
    EXPECT_EQ(block->size(), 882u);
    EXPECT_FLOAT_EQ((*block)[881], 0.25f);
    EXPECT_NEAR(seen.hostSec, 7.25, 1e-9);
    EXPECT_EQ(seen.sampleTime, 0.0);
    EXPECT_FALSE(fake.pullPlayback("living", 441, 7.25));
    r.stream.reset();
    EXPECT_EQ(fake.playbackCount("kitchen"), 0u);
}

TEST(FakeAudioBackend, OpensFailForMissingDevicesAndInjectedFailures) {
    FakeAudioBackend fake;
    fake.addSink("den", "Den");
    Seen seen;
    EXPECT_EQ(fake.openPlayback("nowhere", 0, playbackProc, &seen).status, kFakeErrorNoEntity);
    fake.failOpens("den", 42);
    auto r = fake.openPlayback("den", 0, playbackProc, &seen);
    EXPECT_EQ(r.status, 42);
    EXPECT_FALSE(r.stream);
    fake.clearOpenFailures();
    EXPECT_EQ(fake.openPlayback("den", 0, playbackProc, &seen).status, 0);
    EXPECT_EQ(fake.opensAttempted(), 3u);
}

TEST(FakeAudioBackend, ModulesSinksAndChangeEvents) {
    FakeAudioBackend fake;
    std::vector<ChangeKind> events;
    fake.setChangeHandler([&](ChangeKind k) { events.push_back(k); });
    auto module = fake.loadNullSink("vellatone", "Vellatone", 48000, 2, true);
    ASSERT_TRUE(module);
    EXPECT_FALSE(fake.loadNullSink("vellatone", "Again", 48000, 2, true));  // name taken
    auto sink = fake.sinkByName("vellatone");
    ASSERT_TRUE(sink);
    EXPECT_EQ(sink->monitorSource, "vellatone.monitor");
    EXPECT_EQ(sink->ownerModule, *module);
    EXPECT_TRUE(sink->loadedByUs);
    EXPECT_TRUE(fake.setDefaultSink("vellatone"));
    EXPECT_EQ(fake.defaultSinkName(), "vellatone");
    EXPECT_TRUE(fake.setSinkVolume(sink->id, 0.5));
    EXPECT_NEAR(fake.sinkById(sink->id)->volumeLinear, 0.125, 1e-12);
    EXPECT_TRUE(fake.unloadModule(*module));
    EXPECT_FALSE(fake.sinkByName("vellatone"));
    EXPECT_EQ(events, (std::vector<ChangeKind>{ChangeKind::sinks, ChangeKind::server,
                                               ChangeKind::sinks, ChangeKind::sinks}));

    fake.setAutoNotify(false);
    fake.addSink("living", "Living");
    EXPECT_EQ(events.size(), 4u);
    fake.fireChange(ChangeKind::sinks);
    EXPECT_EQ(events.size(), 5u);

    // Listeners hear the same events as the handler, until removed.
    int heard = 0;
    uint64_t a = fake.addChangeListener([&](ChangeKind) { ++heard; });
    uint64_t b = fake.addChangeListener([&](ChangeKind) { heard += 10; });
    fake.fireChange(ChangeKind::server);
    EXPECT_EQ(heard, 11);
    fake.removeChangeListener(a);
    fake.fireChange(ChangeKind::server);
    EXPECT_EQ(heard, 21);
    fake.removeChangeListener(b);
    fake.fireChange(ChangeKind::server);
    EXPECT_EQ(heard, 21);
    EXPECT_EQ(events.size(), 8u);
}

TEST(FakeAudioBackend, OwnStreamsAreNeverMovedAndWritesCanFail) {
    FakeAudioBackend fake;
    fake.addSink("living", "Living");
    SinkInputInfo app;
    app.properties["application.name"] = "Player";
    SinkInputInfo ours;
    ours.ours = true;
    uint32_t a = fake.addSinkInput(app);
    uint32_t o = fake.addSinkInput(ours);
    EXPECT_TRUE(fake.moveSinkInput(a, "living"));
    EXPECT_FALSE(fake.moveSinkInput(o, "living"));
    ASSERT_EQ(fake.moves().size(), 1u);
    fake.failWrites(true);
    EXPECT_FALSE(fake.setDefaultSink("living"));
    fake.setConnected(false);
    EXPECT_TRUE(fake.sinks().empty());
}

}  // namespace
}  // namespace vt::platform
