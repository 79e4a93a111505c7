// The engine on a real sound server: a speaker whose sink is unloaded while
// the engine runs closes its slot while the others play on, and opens again
// by itself when the sink is loaded again.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "analysis.h"
#include "devices/device_monitor.h"
#include "dispatch/event_loop.h"
#include "dispatch/work_queues.h"
#include "engine/multi_output_engine.h"
#include "platform/pulse/pulse_backend.h"
#include "recorder.h"
#include "support/private_pulse.h"

namespace vt::engine {
namespace {

class SpeakerUnplug : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(pulse.running()) << pulse.error();
        // Noise into the capture sink once it exists; it loops for the
        // length of the test.
        noise = pulse.dir() + "/noise.raw";
        ASSERT_EQ(pulse.run("sox -n -r 48000 -c 2 -b 32 -e floating-point -t raw " +
                            support::PrivatePulse::quote(noise) +
                            " synth 40 whitenoise vol 0.5 sinc -12k"),
                  0);
    }
    void TearDown() override {
        if (noisePid > 0) kill(noisePid, SIGTERM);
    }

    void playNoise() {
        std::string out;
        ASSERT_EQ(pulse.run("pacat --playback -d vellatone --rate=48000 --channels=2 "
                            "--format=float32le --latency-msec=100 < " +
                                support::PrivatePulse::quote(noise) + " >/dev/null 2>&1 & echo $!",
                            &out),
                  0);
        noisePid = std::atoi(out.c_str());
        ASSERT_GT(noisePid, 0);
    }

    std::string moduleOf(const std::string& sink) {
        std::string out;
        pulse.run("pactl list short modules | awk '/sink_name=" + sink + "( |$)/ {print $1}'",
                  &out);
        return out.substr(0, out.find('\n'));
    }

    support::PrivatePulse pulse{{"living:48000:Living", "kitchen:44100:Kitchen", "den:48000:Den"}};
    std::string noise;
    pid_t noisePid = -1;
};

double soundingShare(const syncmeter::Recording& r) {
    size_t sounding = 0;
    for (size_t i = 0; i < r.left.size(); ++i) sounding += r.left[i] != 0.0f;
    return r.left.empty() ? 0.0 : static_cast<double>(sounding) / r.left.size();
}

TEST_F(SpeakerUnplug, SlotClosesOthersPlayOnAndItReturnsByItself) {
    platform::PulseBackend backend;
    ASSERT_TRUE(backend.connected());
    dispatch::EventLoop loop;
    dispatch::ConcurrentQueue openQueue("com.kessor.vellatone.output-open", 2);
    std::vector<std::pair<int, bool>> states;
    {
        MultiOutputEngine engine(backend, loop, openQueue);
        engine.onSlotStateChanged = [&](int slot, bool open) { states.emplace_back(slot, open); };
        devices::DeviceMonitor monitor(backend, loop);
        monitor.onDeviceListChanged = [&] { engine.handleDeviceListChange(); };
        monitor.start();
        const std::vector<std::string> speakers = {"living", "kitchen", "den"};
        for (int slot = 0; slot < 3; ++slot) engine.setOutputDevice(slot, speakers[slot]);
        engine.start();
        ASSERT_TRUE(loop.runUntil(
            [&] { return engine.isOpen(0) && engine.isOpen(1) && engine.isOpen(2); }, 10.0));
        playNoise();
        loop.runUntil([] { return false; }, 2.0);

        // Record the two that stay while the third is unplugged.
        std::vector<syncmeter::Recording> kept;
        std::string recordError;
        std::thread recorder([&] {
            try {
                kept = syncmeter::recordSources(
                    {{"living", "living.monitor"}, {"kitchen", "kitchen.monitor"}}, 3.0);
            } catch (const std::exception& e) {
                recordError = e.what();
            }
        });
        loop.runUntil([] { return false; }, 1.0);
        const std::string module = moduleOf("den");
        ASSERT_FALSE(module.empty());
        ASSERT_EQ(pulse.run("pactl unload-module " + module), 0);
        EXPECT_TRUE(loop.runUntil([&] { return !engine.isOpen(2); }, 5.0));
        loop.runUntil([] { return false; }, 2.5);
        recorder.join();
        ASSERT_TRUE(recordError.empty()) << recordError;
        EXPECT_TRUE(engine.isOpen(0));
        EXPECT_TRUE(engine.isOpen(1));
        EXPECT_EQ(engine.outputDeviceUID(2), "den");
        for (const auto& r : kept) {
            // Gaps from a machine under load are the alignment test's
            // business; here the others must simply go on playing.
            auto d = syncmeter::findDropouts(r.left, r.right, r.rate, 1.0);
            EXPECT_GT(soundingShare(r), 0.9) << r.name << " fell silent; " << d.runs
                                             << " gaps, the longest " << d.longestMs << " ms";
        }

        // Plugged back in: the slot opens with nothing asked of it.
        ASSERT_EQ(pulse.run("pactl load-module module-null-sink sink_name=den rate=48000 "
                            "channels=2 sink_properties=device.description=Den"),
                  0);
        EXPECT_TRUE(loop.runUntil([&] { return engine.isOpen(2); }, 5.0));
        // A fresh null sink has rendered silence far ahead before our stream
        // joined; its monitor delivers that first.
        loop.runUntil([] { return false; }, 3.0);
        auto back = syncmeter::recordSources({{"den", "den.monitor"}}, 1.0);
        ASSERT_EQ(back.size(), 1u);
        EXPECT_GT(soundingShare(back[0]), 0.9) << "den is silent after it came back";

        monitor.stop();
        engine.stop();
        loop.runUntil([] { return false; }, 0.2);
    }
    std::vector<std::pair<int, bool>> slot2;
    for (auto s : states) {
        if (s.first == 2) slot2.push_back(s);
    }
    EXPECT_EQ(slot2,
              (std::vector<std::pair<int, bool>>{{2, true}, {2, false}, {2, true}, {2, false}}));
    EXPECT_FALSE(backend.sinkByName("vellatone")) << "the capture sink goes with the engine";
}

}  // namespace
}  // namespace vt::engine
