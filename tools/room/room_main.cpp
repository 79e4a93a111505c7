// vellatone-room: a virtual room for tests. It records each speaker sink's
// monitor and plays into another sink what a microphone in a room would hear
// of them: each speaker through its own paths (a delay and a gain each, the
// first the direct sound, later ones reflections), plus a steady hiss. Make
// that sink's monitor a source of its own (module-remap-source) and the
// default source, and the program's microphone hears the room.
//
//   vellatone-room --out SINK [--noise LEVEL] SPEAKER=MS[@GAIN][,MS[@GAIN]]...
//
// Each line on standard input is a new set of paths (the same words); a
// speaker it does not name falls silent. "noise" makes the room play a
// noise of its own into every speaker sink (a different one into each),
// "quiet" stops it. "ready" is printed once every stream runs, "settled" when
// the delays hold, "paths", "noise" and "quiet" as each is done.
//
// Frames are placed by the host time the server's timing gives every block,
// on both sides: the delay from a speaker's sink to the room's sink is what
// was asked, to a small fraction of a millisecond, and stays put, however
// the streams' buffers fill. The delays must exceed what the room's own
// streams take (about 60 ms): a path shorter than that plays silence.
#include <pulse/pulseaudio.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/pulse/pulse_loop.h"
#include "platform/pulse/pulse_streams.h"
#include "room_mixer.h"
#include "room_paths.h"

namespace {

using vt::platform::pulse::PulseLoop;

constexpr uint32_t kRoomRate = 48000;
constexpr double kDefaultNoise = 0.003;
constexpr double kSettleSec = 3.0;

[[noreturn]] void usage() {
    std::fprintf(stderr,
                 "usage: vellatone-room --out SINK [--noise LEVEL] SPEAKER=MS[@GAIN][,...]...\n");
    std::exit(2);
}

uint32_t sourceRate(PulseLoop& loop, const std::string& source) {
    uint32_t rate = 0;
    PulseLoop::Lock lock(loop);
    loop.finish(pa_context_get_source_info_by_name(
        loop.context(), source.c_str(),
        [](pa_context*, const pa_source_info* info, int, void* out) {
            if (info) *static_cast<uint32_t*>(out) = info->sample_spec.rate;
        },
        &rate));
    return rate;
}

void recorded(void* history, const float* frames, uint32_t count, double hostSec, double) {
    static_cast<vt::room::SpeakerHistory*>(history)->append(frames, count, hostSec);
}

// What the room plays into a speaker sink itself: silence, or on request a
// noise of its own for each speaker, so that the microphone's recording
// correlates with each speaker only where it hears that one.
struct Keeper {
    std::atomic<bool>* noisy = nullptr;
    uint64_t state = 0;
};
constexpr float kKeeperNoise = 0.3f;

bool keep(void* keeper, float* frames, uint32_t count, double, double) {
    auto* k = static_cast<Keeper*>(keeper);
    const bool noisy = k->noisy->load(std::memory_order_relaxed);
    for (uint32_t i = 0; i < count; ++i) {
        float v = 0.0f;
        if (noisy) {
            k->state ^= k->state << 13;
            k->state ^= k->state >> 7;
            k->state ^= k->state << 17;
            v = kKeeperNoise * (2.0f * static_cast<float>(k->state >> 40) / (1 << 24) - 1.0f);
        }
        frames[2 * i] = v;
        frames[2 * i + 1] = v;
    }
    return true;
}

bool play(void* mixer, float* frames, uint32_t count, double presentSec, double) {
    static_cast<vt::room::RoomMixer*>(mixer)->render(frames, count, presentSec);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string out;
    float noise = static_cast<float>(kDefaultNoise);
    std::vector<std::string> words;
    std::vector<std::string> speakers;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--out" && i + 1 < argc) {
            out = argv[++i];
        } else if (arg == "--noise" && i + 1 < argc) {
            noise = std::strtof(argv[++i], nullptr);
        } else if (arg.find('=') != std::string::npos && arg[0] != '-') {
            words.push_back(arg);
            speakers.push_back(arg.substr(0, arg.find('=')));
        } else {
            usage();
        }
    }
    if (out.empty() || speakers.empty()) usage();
    std::string all, error;
    for (const auto& w : words) all += w + " ";
    auto paths = vt::room::parsePaths(all, speakers, error);
    if (!paths) {
        std::fprintf(stderr, "vellatone-room: %s\n", error.c_str());
        return 2;
    }

    // The record streams and the room's playback on connections of their
    // own, as the program's capture and outputs are.
    auto in = PulseLoop::connect("vellatone-room speakers");
    auto outLoop = PulseLoop::connect("vellatone-room");
    if (!in || !outLoop) {
        std::fprintf(stderr, "vellatone-room: no sound server\n");
        return 1;
    }
    std::vector<std::unique_ptr<vt::room::SpeakerHistory>> histories;
    for (const auto& s : speakers) {
        const uint32_t rate = sourceRate(*in, s + ".monitor");
        if (rate == 0) {
            std::fprintf(stderr, "vellatone-room: no sink %s\n", s.c_str());
            return 1;
        }
        histories.push_back(std::make_unique<vt::room::SpeakerHistory>(rate));
    }
    vt::room::RoomMixer mixer(histories, kRoomRate, noise);
    mixer.setPaths(*paths);

    std::vector<std::unique_ptr<vt::platform::Stream>> streams;
    // An idle null sink renders far ahead, and jumps back when something
    // starts to play into it: a speaker's recorded time line would jump
    // with it. A stream of ours keeps every speaker playing all along.
    std::atomic<bool> noisy{false};
    std::vector<Keeper> keepers(speakers.size());
    for (size_t i = 0; i < speakers.size(); ++i) {
        keepers[i] = Keeper{&noisy, 0x9e3779b97f4a7c15ULL * (i + 1)};
        auto kept = vt::platform::pulse::openPlaybackStream(
            outLoop, speakers[i], "Vellatone room", static_cast<uint32_t>(histories[i]->rate()),
            &keep, &keepers[i]);
        if (kept.stream) streams.push_back(std::move(kept.stream));
    }
    for (size_t i = 0; i < speakers.size(); ++i) {
        auto r = vt::platform::pulse::openRecordStream(in, speakers[i] + ".monitor",
                                                       static_cast<uint32_t>(histories[i]->rate()),
                                                       &recorded, histories[i].get());
        if (!r.stream) {
            std::fprintf(stderr, "vellatone-room: cannot record %s: %s\n", speakers[i].c_str(),
                         r.error.c_str());
            return 1;
        }
        streams.push_back(std::move(r.stream));
    }
    auto r = vt::platform::pulse::openPlaybackStream(outLoop, out, "Vellatone room", kRoomRate,
                                                     &play, &mixer);
    if (!r.stream) {
        std::fprintf(stderr, "vellatone-room: cannot play into %s: %s\n", out.c_str(),
                     r.error.c_str());
        return 1;
    }
    streams.push_back(std::move(r.stream));
    std::printf("ready\n");
    std::fflush(stdout);
    // The streams' clocks take their first lines from a few seconds of
    // timing; until then the delays may be off by milliseconds.
    std::thread([] {
        std::this_thread::sleep_for(std::chrono::duration<double>(kSettleSec));
        std::printf("settled\n");
        std::fflush(stdout);
    }).detach();

    std::string line;
    while (std::getline(std::cin, line)) {
        if (line == "noise" || line == "quiet") {
            noisy.store(line == "noise", std::memory_order_relaxed);
            std::printf("%s\n", line.c_str());
            std::fflush(stdout);
            continue;
        }
        auto next = vt::room::parsePaths(line, speakers, error);
        if (!next) {
            std::fprintf(stderr, "vellatone-room: %s\n", error.c_str());
            continue;
        }
        mixer.setPaths(std::move(*next));
        std::printf("paths\n");
        std::fflush(stdout);
    }
    // Standard input closed: keep playing until a signal ends us; the
    // server drops our streams with the connection.
    for (;;) pause();
}
