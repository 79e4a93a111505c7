// The libpulse backend against a private PulseAudio with three null sinks.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <thread>
#include <vector>

#include <pulse/ext-stream-restore.h>
#include <pulse/pulseaudio.h>

#include "platform/pulse/pulse_backend.h"
#include "support/private_pulse.h"

namespace vt::platform {
namespace {

support::PrivatePulse* gPulse = nullptr;

class PulseBackendTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        gPulse = new support::PrivatePulse(
            {"living:48000:Living", "kitchen:44100:Kitchen", "den:48000:Den"});
    }
    static void TearDownTestSuite() {
        delete gPulse;
        gPulse = nullptr;
    }
    void SetUp() override { ASSERT_TRUE(gPulse->running()) << gPulse->error(); }
};

template <class F>
bool eventually(F done, double seconds = 5.0) {
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
}

double monotonicNow() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

TEST(PulseBackendNoServer, IsNotConnectedWhenNothingAnswers) {
    const char* old = getenv("PULSE_SERVER");
    std::string saved = old ? old : "";
    setenv("PULSE_SERVER", "unix:/nonexistent/vt-no-server", 1);
    PulseBackend backend;
    EXPECT_FALSE(backend.connected());
    EXPECT_TRUE(backend.sinks().empty());
    EXPECT_FALSE(backend.setDefaultSink("living"));
    EXPECT_NE(backend.openPlayback("living", 0, nullptr, nullptr).status, 0);
    if (old)
        setenv("PULSE_SERVER", saved.c_str(), 1);
    else
        unsetenv("PULSE_SERVER");
}

TEST_F(PulseBackendTest, ListsSinksWithRatesAndDescriptions) {
    PulseBackend backend;
    ASSERT_TRUE(backend.connected());
    auto kitchen = backend.sinkByName("kitchen");
    ASSERT_TRUE(kitchen);
    EXPECT_EQ(kitchen->description, "Kitchen");
    EXPECT_DOUBLE_EQ(kitchen->sampleRate, 44100);
    EXPECT_EQ(kitchen->channels, 2u);
    EXPECT_EQ(kitchen->monitorSource, "kitchen.monitor");
    EXPECT_EQ(kitchen->driver, gPulse->pipewire() ? "PipeWire" : "module-null-sink.c");
    EXPECT_NE(kitchen->ownerModule, UINT32_MAX);
    auto living = backend.sinkByName("living");
    ASSERT_TRUE(living);
    EXPECT_DOUBLE_EQ(living->sampleRate, 48000);
    EXPECT_EQ(backend.sinkById(living->id)->name, "living");
    EXPECT_EQ(backend.sinks().size(), 3u);
    EXPECT_TRUE(backend.defaultSinkName().has_value());
}

TEST_F(PulseBackendTest, LoadsAndUnloadsTheCaptureSinkWithChangeEvents) {
    PulseBackend backend;
    std::atomic<int> sinkEvents{0};
    backend.setChangeHandler([&](ChangeKind k) {
        if (k == ChangeKind::sinks) ++sinkEvents;
    });
    auto module = backend.loadNullSink("vellatone", "Vellatone", 48000, 2, true);
    ASSERT_TRUE(module);
    auto sink = backend.sinkByName("vellatone");  // there as soon as the call returns
    ASSERT_TRUE(sink);
    EXPECT_EQ(sink->description, "Vellatone");
    EXPECT_DOUBLE_EQ(sink->sampleRate, 48000);
    EXPECT_EQ(sink->ownerModule, *module);
    EXPECT_TRUE(sink->loadedByUs);
    EXPECT_FALSE(backend.sinkByName("living")->loadedByUs);
    EXPECT_TRUE(eventually([&] { return sinkEvents.load() > 0; }));

    // A second backend (another part of the program, or pactl) sees it too.
    PulseBackend other;
    EXPECT_TRUE(other.sinkByName("vellatone"));
    int before = sinkEvents.load();
    std::atomic<bool> otherSaw{false};
    other.setChangeHandler([&](ChangeKind) {
        if (!other.sinkByName("vellatone")) otherSaw = true;
    });
    ASSERT_TRUE(backend.unloadModule(*module));
    EXPECT_FALSE(backend.sinkByName("vellatone"));
    EXPECT_TRUE(eventually([&] { return otherSaw.load(); }));
    EXPECT_TRUE(eventually([&] { return sinkEvents.load() > before; }));
    EXPECT_FALSE(backend.unloadModule(*module));
}

TEST_F(PulseBackendTest, SetsTheDefaultSinkAndFollowsOthersSettingIt) {
    PulseBackend backend;
    ASSERT_TRUE(backend.setDefaultSink("kitchen"));
    EXPECT_EQ(backend.defaultSinkName(), "kitchen");
    std::string out;
    gPulse->run("pactl get-default-sink", &out);
    EXPECT_EQ(out.substr(0, 7), "kitchen");
    ASSERT_EQ(gPulse->run("pactl set-default-sink den"), 0);
    EXPECT_TRUE(eventually([&] { return backend.defaultSinkName() == "den"; }));
    EXPECT_FALSE(backend.setDefaultSink("nowhere"));
    backend.setDefaultSink("living");
}

TEST_F(PulseBackendTest, SinkVolumesFollowTheCubeLaw) {
    PulseBackend backend;
    auto den = backend.sinkByName("den");
    ASSERT_TRUE(den);
    ASSERT_TRUE(backend.setSinkVolume(den->id, 0.5));
    auto after = backend.sinkByName("den");
    EXPECT_NEAR(after->volumeScalar, 0.5, 1e-4);
    EXPECT_NEAR(after->volumeLinear, 0.125, 1e-3);
    ASSERT_TRUE(backend.setSinkVolume(den->id, 1.0));
    EXPECT_NEAR(backend.sinkByName("den")->volumeScalar, 1.0, 1e-4);
}

// A program playing silence into `sink`, as another application would.
struct Player {
    pid_t pid = -1;
    explicit Player(const std::string& sink) {
        pid = fork();
        if (pid == 0) {
            execlp("pacat", "pacat", "--playback", ("--device=" + sink).c_str(),
                   "--client-name=TestPlayer", "/dev/zero", static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    ~Player() {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
};

bool silentOutput(void*, float* frames, uint32_t count, double, double) {
    std::fill_n(frames, 2 * static_cast<size_t>(count), 0.0f);
    return true;
}

TEST_F(PulseBackendTest, MovesOtherProgramsStreamsButNeverOurs) {
    PulseBackend backend;
    Player player("living");
    auto living = backend.sinkByName("living");
    auto den = backend.sinkByName("den");
    ASSERT_TRUE(living && den);
    std::optional<SinkInputInfo> theirs;
    // On PipeWire a new stream is listed a moment before it is linked to a sink.
    ASSERT_TRUE(eventually([&] {
        for (auto& i : backend.sinkInputs())
            if (!i.ours && i.properties["application.name"] == "TestPlayer") theirs = i;
        return theirs && theirs->sink != kNoDevice;
    }));
    EXPECT_EQ(theirs->sink, living->id);
    ASSERT_TRUE(backend.moveSinkInput(theirs->index, "den"));
    EXPECT_TRUE(eventually([&] {
        for (auto& i : backend.sinkInputs())
            if (i.index == theirs->index) return i.sink == den->id;
        return false;
    }));

    auto ours = backend.openPlayback("living", 0, silentOutput, nullptr);
    ASSERT_EQ(ours.status, 0) << ours.error;
    std::optional<SinkInputInfo> mine;
    ASSERT_TRUE(eventually([&] {
        for (auto& i : backend.sinkInputs())
            if (i.ours) mine = i;
        return mine.has_value();
    }));
    EXPECT_FALSE(backend.moveSinkInput(mine->index, "den"));
    // The server itself refuses too: the stream was opened as not movable.
    EXPECT_NE(gPulse->run("pactl move-sink-input " + std::to_string(mine->index) + " den"), 0);
}

// ----------------------------------------------------------------- timing

// Impulses every `period` frames from the playback side; the capture side
// finds them in the monitor. Both sides record the host time the backend
// gave each impulse, so the two clocks can be compared frame for frame.
struct Probe {
    static constexpr size_t kMax = 4096;
    uint32_t period = 4800;
    double rate = 48000;
    // Playback side: host time each block's first frame is heard.
    std::vector<double> presentTimes = std::vector<double>(20000);
    std::vector<uint64_t> presentFrames = std::vector<uint64_t>(20000);
    std::atomic<size_t> blocks{0};
    std::vector<double> impulseSent = std::vector<double>(kMax);
    std::vector<uint64_t> impulseSentFrame = std::vector<uint64_t>(kMax);
    std::atomic<size_t> sent{0};
    // Capture side.
    std::vector<double> captureTimes = std::vector<double>(20000);
    std::vector<double> captureFrames = std::vector<double>(20000);
    std::atomic<size_t> captured{0};
    std::vector<double> impulseHeard = std::vector<double>(kMax);
    std::atomic<size_t> heard{0};
    std::atomic<int> untimedCaptures{0};
};

bool probeOutput(void* client, float* data, uint32_t frames, double start, double streamFrame) {
    auto* p = static_cast<Probe*>(client);
    // Frames are counted by the stream's own position, which jumps forward
    // if the stream had to skip.
    const auto first = static_cast<uint64_t>(streamFrame);
    size_t b = p->blocks.load();
    if (b < p->presentTimes.size()) {
        p->presentTimes[b] = start;
        p->presentFrames[b] = first;
        p->blocks.store(b + 1);
    }
    for (uint32_t i = 0; i < frames; ++i) {
        bool impulse = (first + i) % p->period == 0 && first + i > 0;
        data[2 * i] = data[2 * i + 1] = impulse ? 1.0f : 0.0f;
        if (impulse) {
            size_t s = p->sent.load();
            if (s < p->impulseSent.size()) {
                p->impulseSent[s] = start + i / p->rate;
                p->impulseSentFrame[s] = first + i;
                p->sent.store(s + 1);
            }
        }
    }
    return true;
}

void probeInput(void* client, const float* data, uint32_t frames, double start,
                double streamFrame) {
    auto* p = static_cast<Probe*>(client);
    if (!(start > 0)) {
        ++p->untimedCaptures;
        return;
    }
    if (!data) return;
    size_t c = p->captured.load();
    if (c < p->captureTimes.size()) {
        p->captureTimes[c] = start;
        p->captureFrames[c] = streamFrame;
        p->captured.store(c + 1);
    }
    for (uint32_t i = 0; i < frames; ++i) {
        if (data[2 * i] > 0.5f) {
            size_t h = p->heard.load();
            if (h < p->impulseHeard.size()) {
                p->impulseHeard[h] = start + i / p->rate;
                p->heard.store(h + 1);
            }
        }
    }
}

struct Stats {
    double median = 0, maxAbs = 0;
};

Stats statsOf(std::vector<double> v) {
    Stats s;
    if (v.empty()) return s;
    for (double x : v) s.maxAbs = std::max(s.maxAbs, std::fabs(x));
    std::sort(v.begin(), v.end());
    s.median = v[v.size() / 2];
    return s;
}

// Residuals of block times against the straight line that fits them best:
// a sink's clock may run a little fast or slow against the host's, which is
// drift, not jitter.
std::vector<double> lineResiduals(const std::vector<double>& times,
                                  const std::vector<double>& frames, double* slopeOut = nullptr) {
    const size_t n = times.size();
    double mf = 0, mt = 0;
    for (size_t i = 0; i < n; ++i) {
        mf += frames[i];
        mt += times[i];
    }
    mf /= static_cast<double>(n);
    mt /= static_cast<double>(n);
    double sff = 0, sft = 0;
    for (size_t i = 0; i < n; ++i) {
        sff += (frames[i] - mf) * (frames[i] - mf);
        sft += (frames[i] - mf) * (times[i] - mt);
    }
    const double slope = sft / sff;
    if (slopeOut) *slopeOut = slope;
    std::vector<double> out;
    for (size_t i = 0; i < n; ++i) out.push_back(times[i] - (mt + slope * (frames[i] - mf)));
    return out;
}

void runProbe(PulseBackend& backend, const std::string& sink, double rate, double seconds) {
    Probe probe;
    probe.rate = rate;
    probe.period = static_cast<uint32_t>(rate / 10);
    auto capture =
        backend.openCapture(sink + ".monitor", static_cast<uint32_t>(rate), probeInput, &probe);
    ASSERT_EQ(capture.status, 0) << capture.error;
    auto playback = backend.openPlayback(sink, 0, probeOutput, &probe);
    ASSERT_EQ(playback.status, 0) << playback.error;
    EXPECT_DOUBLE_EQ(playback.stream->sampleRate(), rate);  // opened at the sink's own rate
    // An idle null sink has rendered up to 2 s ahead; a new stream plays
    // after that, and only then do blocks flow small. Measure once what is
    // written now is heard within 100 ms, three looks in a row.
    auto leadNow = [&] {
        size_t b = std::min(probe.blocks.load(), probe.presentTimes.size());
        return b ? probe.presentTimes[b - 1] - monotonicNow() : 1e9;
    };
    int settled = 0;
    for (int i = 0; i < 150 && settled < 3; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        settled = leadNow() < 0.1 ? settled + 1 : 0;
    }
    ASSERT_EQ(settled, 3) << "the sink never came down to a short latency; lead " << leadNow();
    const double from = monotonicNow();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double t1 = monotonicNow();
    // The server does not resample our stream: it runs at the sink's rate.
    std::string inputs;
    gPulse->run("pactl list sink-inputs", &inputs);
    std::string ours;
    for (size_t at = inputs.find("Sink Input #"); at != std::string::npos;) {
        size_t next = inputs.find("Sink Input #", at + 1);
        std::string block = inputs.substr(at, next == std::string::npos ? next : next - at);
        if (block.find(kOwnStreamProperty) != std::string::npos) ours = block;
        at = next;
    }
    char sampleSpec[64];
    std::snprintf(sampleSpec, sizeof sampleSpec, "float32le 2ch %.0fHz", rate);
    EXPECT_NE(ours.find(sampleSpec), std::string::npos) << ours;
    // pipewire-pulse does not say how it would resample; the rate above is
    // what matters there.
    if (!gPulse->pipewire()) {
        EXPECT_NE(ours.find("Resample method: n/a"), std::string::npos) << ours;
    }
    uint64_t underruns = playback.stream->underruns();
    playback.stream.reset();
    capture.stream.reset();

    // Playback: presentation times advance with the frame count.
    std::vector<double> pt, pf;
    for (size_t i = 0; i < std::min(probe.blocks.load(), probe.presentTimes.size()); ++i)
        if (probe.presentTimes[i] > from) {
            pt.push_back(probe.presentTimes[i]);
            pf.push_back(static_cast<double>(probe.presentFrames[i]));
        }
    ASSERT_GT(pt.size(), 20u);
    double secondsPerFrame = 0;
    auto pStats = statsOf(lineResiduals(pt, pf, &secondsPerFrame));
    // How fast the sink's clock runs against the host's.
    const double driftPpm = (1.0 / (secondsPerFrame * rate) - 1.0) * 1e6;
    // Capture: host times advance with the frame count.
    std::vector<double> ct, cf;
    for (size_t i = 0; i < std::min(probe.captured.load(), probe.captureTimes.size()); ++i)
        if (probe.captureTimes[i] > from) {
            ct.push_back(probe.captureTimes[i]);
            cf.push_back(probe.captureFrames[i]);
        }
    ASSERT_GT(ct.size(), 20u);
    auto cStats = statsOf(lineResiduals(ct, cf));
    // Latency of the last block written: how far ahead of now it is heard.
    const double lead =
        probe.presentTimes[std::min(probe.blocks.load(), probe.presentTimes.size()) - 1] - t1;

    // End to end: each impulse's capture time against its presentation time.
    size_t sent = probe.sent.load(), heard = probe.heard.load();
    std::vector<double> errors;
    for (size_t h = 0; h < heard; ++h) {
        if (probe.impulseHeard[h] <= from) continue;
        double best = 1e9;
        for (size_t s = 0; s < sent; ++s) {
            double d = probe.impulseHeard[h] - probe.impulseSent[s];
            if (std::fabs(d) < std::fabs(best)) best = d;
        }
        if (std::fabs(best) < 0.05) errors.push_back(best);
    }
    auto eStats = statsOf(errors);
    std::printf(
        "[%s %.0f Hz] playback blocks %zu: present-time jitter max %.3f ms | capture blocks %zu: "
        "host-time jitter max %.3f ms | impulses heard %zu of %zu: capture minus presentation "
        "median %.3f ms, max %.3f ms | lead at the end %.1f ms | underruns %llu | sink clock "
        "%+.0f ppm\n",
        sink.c_str(), rate, pt.size(), pStats.maxAbs * 1e3, ct.size(), cStats.maxAbs * 1e3,
        errors.size(), sent, eStats.median * 1e3, eStats.maxAbs * 1e3, lead * 1e3,
        static_cast<unsigned long long>(underruns), driftPpm);
    // On pipewire-pulse the timing snapshots have not been brought to the
    // millisecond yet (a steady 5-6 ms between capture and presentation, more
    // jitter, and under load underruns that lose impulses): the figures above
    // are printed, the bounds held only on PulseAudio until that work lands.
    if (gPulse->pipewire())
        GTEST_SKIP() << "stream timing on PipeWire is measured above, not yet held to bounds";
    ASSERT_GT(errors.size(), static_cast<size_t>(seconds * 10 * 0.8));
    EXPECT_LT(pStats.maxAbs, 0.002);
    EXPECT_LT(cStats.maxAbs, 0.002);
    EXPECT_LT(std::fabs(eStats.median), 0.0005);
    EXPECT_LT(eStats.maxAbs, 0.002);
}

TEST_F(PulseBackendTest, PlaybackAndCaptureTimesAgreeAt48k) {
    PulseBackend backend;
    runProbe(backend, "living", 48000, 4.0);
}

TEST_F(PulseBackendTest, PlaybackAt44k1RunsAtTheSinksRate) {
    PulseBackend backend;
    runProbe(backend, "kitchen", 44100, 3.0);
}

TEST_F(PulseBackendTest, OpeningOnAMissingSinkFails) {
    PulseBackend backend;
    auto r = backend.openPlayback("nowhere", 0, silentOutput, nullptr);
    EXPECT_NE(r.status, 0);
    EXPECT_FALSE(r.stream);
    auto c = backend.openCapture("nowhere.monitor", 48000, probeInput, nullptr);
    EXPECT_NE(c.status, 0);
}

// Declared last: it takes a server of its own and kills it.
TEST(PulseBackendServerLoss, ForgetsEverythingAndSaysSoWhenTheServerGoes) {
    auto pulse =
        std::make_unique<support::PrivatePulse>(std::vector<std::string>{"living:48000:Living"});
    ASSERT_TRUE(pulse->running()) << pulse->error();
    PulseBackend backend;
    ASSERT_TRUE(backend.connected());
    ASSERT_TRUE(backend.sinkByName("living"));
    auto stream = backend.openPlayback("living", 0, silentOutput, nullptr);
    ASSERT_EQ(stream.status, 0);
    std::atomic<int> sinkEvents{0};
    backend.setChangeHandler([&](ChangeKind k) {
        if (k == ChangeKind::sinks) ++sinkEvents;
    });
    pulse.reset();  // stops the daemon
    EXPECT_TRUE(eventually([&] { return !backend.connected(); }));
    EXPECT_TRUE(eventually([&] { return sinkEvents.load() > 0; }));
    EXPECT_TRUE(backend.sinks().empty());
    EXPECT_FALSE(backend.defaultSinkName());
    EXPECT_FALSE(backend.setDefaultSink("living"));
    stream.stream.reset();  // closing a stream of a dead connection is harmless
}

// What the server keeps about our streams, as "key volume": PulseAudio's
// stream-restore entries, WirePlumber's restore-stream state.
std::vector<std::string> storedOwnEntries(const support::PrivatePulse& pulse) {
    std::vector<std::string> out;
    if (pulse.pipewire()) {
        std::ifstream state(pulse.dir() + "/home/.local/state/wireplumber/restore-stream");
        for (std::string line; std::getline(state, line);)
            if (line.find("vellatone-stream:") != std::string::npos &&
                line.find(":channelVolumes=") != std::string::npos)
                out.push_back(line);
        return out;
    }
    pa_mainloop* loop = pa_mainloop_new();
    pa_context* c = pa_context_new(pa_mainloop_get_api(loop), "vt-test");
    pa_context_connect(c, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr);
    while (pa_context_get_state(c) != PA_CONTEXT_READY &&
           PA_CONTEXT_IS_GOOD(pa_context_get_state(c)))
        pa_mainloop_iterate(loop, 1, nullptr);
    struct Read {
        std::vector<std::string>* out;
        bool done = false;
    } read{&out};
    pa_operation* op = pa_ext_stream_restore_read(
        c,
        [](pa_context*, const pa_ext_stream_restore_info* i, int eol, void* r) {
            auto* me = static_cast<Read*>(r);
            if (eol) {
                me->done = true;
            } else if (std::string(i->name).find("vellatone-stream:") != std::string::npos) {
                char v[PA_CVOLUME_SNPRINT_MAX];
                me->out->push_back(std::string(i->name) + " " +
                                   pa_cvolume_snprint(v, sizeof v, &i->volume));
            }
        },
        &read);
    while (op && !read.done && PA_CONTEXT_IS_GOOD(pa_context_get_state(c)))
        pa_mainloop_iterate(loop, 1, nullptr);
    if (op) pa_operation_unref(op);
    pa_context_disconnect(c);
    pa_context_unref(c);
    pa_mainloop_free(loop);
    return out;
}

// Nothing stored for our streams on `device` (any device when empty), or
// (WirePlumber keeps every key it saw) only full volume.
bool ownEntriesCleared(const support::PrivatePulse& pulse, const std::string& device = "") {
    for (const std::string& entry : storedOwnEntries(pulse))
        if (entry.find("vellatone-stream:" + device) != std::string::npos &&
            (!pulse.pipewire() || entry.find("=1.0;1.0;") == std::string::npos))
            return false;
    return true;
}

TEST(PulseBackendServerLoss, ASpeakerStreamIsNamedForItAndOptedOutOfStreamRestore) {
    support::PrivatePulse pulse({"living:48000:Living", "kitchen:48000:Kitchen"});
    ASSERT_TRUE(pulse.running()) << pulse.error();
    PulseBackend backend;
    auto living = backend.openPlayback("living", 0, silentOutput, nullptr);
    auto kitchen = backend.openPlayback("kitchen", 0, silentOutput, nullptr);
    ASSERT_EQ(living.status, 0);
    ASSERT_EQ(kitchen.status, 0);
    std::map<std::string, std::map<std::string, std::string>> byName;
    ASSERT_TRUE(eventually([&] {
        byName.clear();
        for (auto& i : backend.sinkInputs())
            if (i.ours) byName[i.properties["media.name"]] = i.properties;
        return byName.size() == 2;
    }));
    ASSERT_TRUE(byName.contains("Vellatone → Living"));
    ASSERT_TRUE(byName.contains("Vellatone → Kitchen"));
    for (auto& [name, props] : byName) {
        EXPECT_EQ(props["state.restore-props"], "false") << name;
        EXPECT_EQ(props["state.restore-target"], "false") << name;
    }
    // PulseAudio's stream restore keys what it stores by this; pipewire-pulse
    // sets its own, and WirePlumber goes by the two properties above.
    if (!pulse.pipewire()) {
        EXPECT_NE(byName["Vellatone → Living"]["module-stream-restore.id"],
                  byName["Vellatone → Kitchen"]["module-stream-restore.id"]);
    }

    // Turned down by a user, as with pactl: the server stores that, and
    // must neither give it to the next stream for living nor keep it after.
    uint32_t index = 0;
    for (auto& i : backend.sinkInputs())
        if (i.ours && i.properties["media.name"] == "Vellatone → Living") index = i.index;
    ASSERT_EQ(pulse.run("pactl set-sink-input-volume " + std::to_string(index) + " 50%"), 0);
    auto storedHalf = [&] {
        for (const std::string& e : storedOwnEntries(pulse))
            if (e.find("living") != std::string::npos &&
                (e.find("=0.12") != std::string::npos || e.find(" 50%") != std::string::npos))
                return true;
        return false;
    };
    ASSERT_TRUE(eventually(storedHalf, 5.0)) << "WirePlumber writes its state within a second";
    living.stream.reset();
    EXPECT_TRUE(eventually([&] { return ownEntriesCleared(pulse, "living"); }, 5.0));
    living = backend.openPlayback("living", 0, silentOutput, nullptr);
    ASSERT_EQ(living.status, 0);
    kitchen.stream.reset();
    living.stream.reset();
    EXPECT_TRUE(eventually([&] { return ownEntriesCleared(pulse); }, 5.0));
}

TEST(PulseBackendServerLoss, ReconnectsOnceTheServerIsBackAndSaysSo) {
    support::PrivatePulse pulse({"living:48000:Living"});
    ASSERT_TRUE(pulse.running()) << pulse.error();
    PulseBackend backend;
    ASSERT_TRUE(backend.connected());
    EXPECT_FALSE(backend.serverName().empty());
    EXPECT_EQ(backend.serverName().find("PipeWire") != std::string::npos, pulse.pipewire());
    std::atomic<int> connectionEvents{0};
    backend.setChangeHandler([&](ChangeKind k) {
        if (k == ChangeKind::connection) ++connectionEvents;
    });

    pulse.kill();
    ASSERT_TRUE(eventually([&] { return !backend.connected(); }));
    EXPECT_EQ(connectionEvents.load(), 1) << "the loss is announced at once";
    EXPECT_FALSE(backend.reconnect()) << "nobody answers yet";

    ASSERT_TRUE(pulse.start({"living:48000:Living"})) << pulse.error();
    ASSERT_TRUE(backend.reconnect());
    EXPECT_TRUE(backend.connected());
    EXPECT_EQ(connectionEvents.load(), 2);
    EXPECT_TRUE(eventually([&] { return backend.sinkByName("living").has_value(); }));
    auto stream = backend.openPlayback("living", 0, silentOutput, nullptr);
    EXPECT_EQ(stream.status, 0) << stream.error;
    EXPECT_TRUE(backend.setDefaultSink("living"));
}

}  // namespace
}  // namespace vt::platform
