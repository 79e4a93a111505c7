// vellatone-cast-probe: one CastSender playing a tone to a Cast TV, on its
// own, without the application around it. It prints what the sender
// reports as JSON lines, with seconds since start:
//   {"t":0.002,"status":"connecting"}   {"t":9.5,"latencyMs":1012.3}
//   {"t":12.0,"status":"failed","reason":"..."}
// and stops the sender after --seconds, or once standard input reads
// "stop" (with --stdin yes). The Cast tests drive the fake TV with it.
//
//   vellatone-cast-probe --host 127.0.0.1 --port 8009 [--seconds 40] [--tone 440] [--stdin yes]
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "cast/cast_sender.h"
#include "dispatch/clock.h"
#include "dispatch/event_loop.h"

namespace {

constexpr double kToneLevel = 0.25;
constexpr double kSampleRateHz = 44100.0;

struct Options {
    std::string host = "127.0.0.1";
    int port = 8009;
    double seconds = 40.0;
    double toneHz = 440.0;
    bool controlled = false;  // "stop" on standard input ends it early
};

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i];
        const char* value = argv[i + 1];
        if (key == "--host")
            o.host = value;
        else if (key == "--port")
            o.port = std::atoi(value);
        else if (key == "--seconds")
            o.seconds = std::atof(value);
        else if (key == "--tone")
            o.toneHz = std::atof(value);
        else if (key == "--stdin")
            o.controlled = std::strcmp(value, "yes") == 0;
        else {
            std::fprintf(stderr, "unknown option %s\n", key.c_str());
            std::exit(2);
        }
    }
    return o;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    vt::dispatch::EventLoop main;
    vt::dispatch::EventLoop senderLoop;
    std::thread senderThread([&] { senderLoop.run(); });
    const double started = vt::dispatch::monotonicSeconds();
    const auto since = [&] { return vt::dispatch::monotonicSeconds() - started; };

    double phase = 0;
    const double step = 2.0 * M_PI * options.toneHz / kSampleRateHz;
    auto render = [&phase, step](float* into, size_t frames) {
        for (size_t i = 0; i < frames; ++i) {
            const auto v = static_cast<float>(kToneLevel * std::sin(phase));
            into[2 * i] = v;
            into[2 * i + 1] = v;
            phase = std::fmod(phase + step, 2.0 * M_PI);
        }
    };
    auto sender =
        vt::cast::CastSender::make({"probe", options.host, options.port}, render, senderLoop, main);
    sender->onStatus = [&](const vt::cast::CastStatus& status) {
        std::printf("{\"t\":%.3f,\"status\":\"%s\"", since(), vt::cast::rawValue(status.kind));
        if (!status.reason.empty()) std::printf(",\"reason\":\"%s\"", status.reason.c_str());
        std::printf("}\n");
        std::fflush(stdout);
    };
    sender->onLatency = [&](double ms) {
        std::printf("{\"t\":%.3f,\"latencyMs\":%.1f}\n", since(), ms);
        std::fflush(stdout);
    };
    sender->start();
    auto deadline = main.postAfter(options.seconds, [&] { main.quit(); });
    if (options.controlled) {
        std::thread input([&main] {
            char line[64];
            while (std::fgets(line, sizeof line, stdin)) {
                if (std::strncmp(line, "stop", 4) == 0) break;
            }
            main.post([&main] { main.quit(); });
        });
        input.detach();
    }
    main.run();
    sender->stop();
    main.runUntil([] { return false; }, 0.1);  // the final "stopped"
    sender.reset();
    senderLoop.quit();
    senderThread.join();
    return 0;
}
