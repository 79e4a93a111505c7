// vellatone-engine-run: runs the multi-output engine on the sound server for a
// while, with the given sinks as outputs. It plays nothing itself: whatever
// is played into the capture sink "vellatone" comes out of the outputs.
//
//   vellatone-engine-run [--seconds N] SINK=DELAY_MS...
//
// Prints "slot N SINK open" / "slot N SINK closed" as slots change, one line
// a second of telemetry on standard error, a line there whenever a speaker's
// underruns or starved frames grow, and stops the engine (taking its
// capture sink down again) at the end, on SIGINT or on SIGTERM.
#include <signal.h>
#include <time.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "delay/delay_plan.h"
#include "devices/device_monitor.h"
#include "dispatch/event_loop.h"
#include "dispatch/work_queues.h"
#include "engine/multi_output_engine.h"
#include "platform/pulse/pulse_backend.h"

namespace {

// Set by the signal handler, which may do nothing else safely; the loop
// looks at it a few times a second.
volatile std::sig_atomic_t gStop = 0;

void onSignal(int) {
    gStop = 1;
}

[[noreturn]] void usage() {
    std::fprintf(stderr, "usage: vellatone-engine-run [--seconds N] SINK=DELAY_MS...\n");
    std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 60;
    std::vector<std::pair<std::string, double>> outputs;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--seconds" && i + 1 < argc) {
            seconds = std::atof(argv[++i]);
        } else if (auto eq = arg.find('='); eq != std::string::npos && eq > 0) {
            outputs.emplace_back(arg.substr(0, eq), std::atof(arg.substr(eq + 1).c_str()));
        } else {
            usage();
        }
    }
    if (outputs.empty() ||
        outputs.size() > static_cast<size_t>(vt::engine::MultiOutputEngine::maxRegularOutputs)) {
        usage();
    }

    vt::dispatch::EventLoop loop;
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    auto backend = std::make_unique<vt::platform::PulseBackend>();
    if (!backend || !backend->connected()) {
        std::fprintf(stderr, "vellatone-engine-run: no sound server\n");
        return 2;
    }
    vt::dispatch::ConcurrentQueue openQueue("com.kessor.vellatone.output-open", 2);
    int status = 0;
    {
        vt::engine::MultiOutputEngine engine(*backend, loop, openQueue);
        engine.onSlotStateChanged = [&](int slot, bool open) {
            std::printf("slot %d %s %s\n", slot, outputs[static_cast<size_t>(slot)].first.c_str(),
                        open ? "open" : "closed");
            std::fflush(stdout);
        };
        engine.onSlotFailed = [&](int slot, int err) {
            std::printf("slot %d %s failed %d\n", slot,
                        outputs[static_cast<size_t>(slot)].first.c_str(), err);
            std::fflush(stdout);
        };
        // As in the application: sinks coming and going reach the engine
        // through the device monitor.
        vt::devices::DeviceMonitor monitor(*backend, loop);
        monitor.onDeviceListChanged = [&engine] { engine.handleDeviceListChange(); };
        monitor.start();
        for (size_t i = 0; i < outputs.size(); ++i) {
            int slot = static_cast<int>(i);
            engine.setOutputDevice(slot, outputs[i].first);
            engine.setDelayMs(slot, outputs[i].second);
            engine.setVolume(slot, 1.0);
        }
        try {
            engine.start();
        } catch (const vt::engine::EngineError& e) {
            std::fprintf(stderr, "vellatone-engine-run: the engine would not start: %s\n",
                         e.what());
            return 1;
        }
        std::printf("running\n");
        std::fflush(stdout);

        // As the application's telemetry tick does: a slot the engine had to
        // play later is matched by holding the others back as much.
        std::vector<double> offsets, lates(outputs.size(), 0.0);
        for (const auto& o : outputs) offsets.push_back(o.second);
        auto follow = loop.repeat(0.1, [&] {
            bool moved = false;
            for (size_t i = 0; i < outputs.size(); ++i) {
                double late = engine.lateMs(static_cast<int>(i));
                if (std::fabs(late - lates[i]) >= 1.0) {
                    lates[i] = late;
                    moved = true;
                }
            }
            if (!moved) return;
            auto delays = vt::delay::DelayPlan::engineDelays(offsets, lates);
            for (size_t i = 0; i < delays.size(); ++i) {
                engine.setDelayMs(static_cast<int>(i), delays[i]);
            }
            std::fprintf(stderr, "late slots: delays now");
            for (double d : delays) std::fprintf(stderr, " %.0f", d);
            std::fprintf(stderr, " ms\n");
        });
        auto tick = loop.repeat(1.0, [&] {
            std::string line = "telemetry";
            for (size_t i = 0; i < outputs.size(); ++i) {
                int slot = static_cast<int>(i);
                auto t = engine.telemetry(slot);
                char buf[160];
                std::snprintf(buf, sizeof buf, " | %s ppm %+.1f err %+.3f ms late %.0f ms%s",
                              outputs[i].first.c_str(), t.ppm, t.fillErrMs, engine.lateMs(slot),
                              re_engine_timed(engine.ringEngine(), slot) ? " timed" : "");
                line += buf;
            }
            std::fprintf(stderr, "%s\n", line.c_str());
        });
        // Underruns (the server found a stream empty) and starving (the engine
        // had no captured audio for a speaker), with the wall-clock time they
        // were seen within 50 ms: a gap in a recording of the speakers is the
        // one or the other, or neither of ours.
        std::vector<vt::engine::MultiOutputEngine::Telemetry> seen(outputs.size());
        auto watchUnderruns = loop.repeat(0.05, [&] {
            for (size_t i = 0; i < outputs.size(); ++i) {
                const auto now = engine.telemetry(static_cast<int>(i));
                if (now.underruns == seen[i].underruns &&
                    now.starvedFrames == seen[i].starvedFrames)
                    continue;
                timespec wall{};
                clock_gettime(CLOCK_REALTIME, &wall);
                std::fprintf(stderr, "%s at %ld.%03ld: %llu underruns, %llu frames starved\n",
                             outputs[i].first.c_str(), static_cast<long>(wall.tv_sec),
                             wall.tv_nsec / 1000000, static_cast<unsigned long long>(now.underruns),
                             static_cast<unsigned long long>(now.starvedFrames));
                seen[i] = now;
            }
        });
        auto end = loop.postAfter(seconds, [&] { loop.quit(); });
        auto watchSignals = loop.repeat(0.05, [&] {
            if (gStop) loop.quit();
        });
        loop.run();
        tick.reset();
        watchUnderruns.reset();
        follow.reset();
        monitor.stop();
        engine.stop();
        std::printf("stopped\n");
    }
    return status;
}
