// vellatone-tv-sink: the fake TV's loudspeaker. Plays 16-bit stereo PCM from
// standard input into a sink of the sound server and says, from the server's
// timing snapshots, which of those frames is heard when, as a TV's audio
// stack knows its own output delay:
//
//   vellatone-tv-sink [--device tv] [--rate 44100] [--latency-msec 60]
//
// Each line on standard output is "heard T F": frame F (counted from the
// first frame read, over the whole run) is heard at T, seconds on
// CLOCK_MONOTONIC. Lines come about every 20 ms while sound plays. Frames are
// never dropped, so the count matches the writer's.
#include <fcntl.h>
#include <pulse/pulseaudio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>

namespace {

constexpr size_t kBytesPerFrame = 4;  // s16le stereo
constexpr size_t kReadChunkBytes = 16384;
constexpr size_t kMaxHeldBytes = 8u << 20;  // a writer far ahead of real time is broken
// pipewire-pulse answers a timing query with the position its last graph
// cycle left and the clock at the moment it answers: asked at a random
// moment, a snapshot is late by up to a whole quantum (5.3 ms at 256
// frames) and every frame seems heard that much later than it is. Asked
// right after the server's request for data, which ends a cycle, it is
// fresh. PulseAudio reads both when it answers and does not care.
constexpr double kTimingEverySec = 0.020;
// A stream the server asks nothing of still gets a snapshot this often.
constexpr double kQuietTimingEverySec = 0.100;
constexpr pa_usec_t kTimerEveryUsec = 20000;

double clockSec(clockid_t id) {
    timespec ts{};
    clock_gettime(id, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

struct Sink {
    pa_mainloop* loop = nullptr;
    pa_mainloop_api* api = nullptr;
    pa_context* context = nullptr;
    pa_stream* stream = nullptr;
    std::string device = "tv";
    uint32_t rate = 44100;
    uint32_t latencyMs = 60;
    pa_defer_event* freshTiming = nullptr;
    pa_operation* pendingTiming = nullptr;
    double lastTimingRequest = 0;  // monotonic seconds
    std::deque<uint8_t> held;
    bool inputEnded = false;
    bool draining = false;
};

void quit(Sink& s, int code) {
    s.api->quit(s.api, code);
}

void feed(Sink& s) {
    if (!s.stream || pa_stream_get_state(s.stream) != PA_STREAM_READY) return;
    size_t room = pa_stream_writable_size(s.stream);
    size_t n = std::min(room, s.held.size());
    n -= n % kBytesPerFrame;
    if (n > 0) {
        void* into = nullptr;
        size_t got = n;
        if (pa_stream_begin_write(s.stream, &into, &got) < 0 || !into) return;
        got = std::min(got, n);
        got -= got % kBytesPerFrame;
        std::copy(s.held.begin(), s.held.begin() + static_cast<long>(got),
                  static_cast<uint8_t*>(into));
        s.held.erase(s.held.begin(), s.held.begin() + static_cast<long>(got));
        pa_stream_write(s.stream, into, got, nullptr, 0, PA_SEEK_RELATIVE);
    }
    if (s.inputEnded && s.held.size() < kBytesPerFrame && !s.draining) {
        s.draining = true;
        pa_operation* op = pa_stream_drain(
            s.stream, [](pa_stream*, int, void* user) { quit(*static_cast<Sink*>(user), 0); }, &s);
        if (op) pa_operation_unref(op);
    }
}

void onInput(pa_mainloop_api*, pa_io_event* event, int fd, pa_io_event_flags_t, void* user) {
    auto& s = *static_cast<Sink*>(user);
    uint8_t chunk[kReadChunkBytes];
    for (;;) {
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n > 0) {
            s.held.insert(s.held.end(), chunk, chunk + n);
            if (s.held.size() > kMaxHeldBytes) {
                std::fprintf(stderr, "vellatone-tv-sink: the writer is far ahead of real time\n");
                quit(s, 1);
                return;
            }
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) break;
        s.inputEnded = true;
        s.api->io_free(event);
        break;
    }
    feed(s);
}

void onTiming(pa_stream* st, int success, void* user) {
    auto& s = *static_cast<Sink*>(user);
    if (s.pendingTiming) {
        pa_operation_unref(s.pendingTiming);
        s.pendingTiming = nullptr;
    }
    const pa_timing_info* ti = success ? pa_stream_get_timing_info(st) : nullptr;
    if (!ti || ti->read_index_corrupt || ti->read_index <= 0) return;
    // The sink has taken read_index bytes of ours and will play the last of
    // them sink_usec from the snapshot's (wall-clock) time.
    const double wallToMono = clockSec(CLOCK_MONOTONIC) - clockSec(CLOCK_REALTIME);
    const double at = static_cast<double>(ti->timestamp.tv_sec) +
                      static_cast<double>(ti->timestamp.tv_usec) * 1e-6 + wallToMono;
    const double heard = static_cast<double>(ti->read_index) / kBytesPerFrame -
                         static_cast<double>(ti->sink_usec) * 1e-6 * s.rate;
    std::printf("heard %.6f %.1f\n", at, heard);
    std::fflush(stdout);
}

void requestTiming(Sink& s) {
    if (s.pendingTiming || !s.stream || pa_stream_get_state(s.stream) != PA_STREAM_READY) return;
    s.pendingTiming = pa_stream_update_timing_info(s.stream, onTiming, &s);
    if (s.pendingTiming) s.lastTimingRequest = clockSec(CLOCK_MONOTONIC);
}

void onFreshTiming(pa_mainloop_api* api, pa_defer_event* event, void* user) {
    api->defer_enable(event, 0);
    requestTiming(*static_cast<Sink*>(user));
}

void onTimer(pa_mainloop_api* api, pa_time_event* event, const struct timeval*, void* user) {
    auto& s = *static_cast<Sink*>(user);
    if (clockSec(CLOCK_MONOTONIC) - s.lastTimingRequest >= kQuietTimingEverySec) requestTiming(s);
    timeval next{};
    pa_timeval_add(pa_gettimeofday(&next), kTimerEveryUsec);
    api->time_restart(event, &next);
}

void openStream(Sink& s) {
    const pa_sample_spec spec{PA_SAMPLE_S16LE, s.rate, 2};
    s.stream = pa_stream_new(s.context, "fake-tv", &spec, nullptr);
    if (!s.stream) {
        quit(s, 1);
        return;
    }
    pa_stream_set_state_callback(
        s.stream,
        [](pa_stream* st, void* user) {
            auto& sink = *static_cast<Sink*>(user);
            const auto state = pa_stream_get_state(st);
            if (state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED) quit(sink, 1);
            if (state == PA_STREAM_READY) feed(sink);
        },
        &s);
    pa_stream_set_write_callback(
        s.stream,
        [](pa_stream*, size_t, void* user) {
            auto& sink = *static_cast<Sink*>(user);
            if (clockSec(CLOCK_MONOTONIC) - sink.lastTimingRequest >= kTimingEverySec)
                sink.api->defer_enable(sink.freshTiming, 1);
            feed(sink);
        },
        &s);
    pa_buffer_attr attr{};
    attr.maxlength = static_cast<uint32_t>(-1);
    attr.tlength = static_cast<uint32_t>(pa_usec_to_bytes(s.latencyMs * 1000ull, &spec));
    attr.prebuf = static_cast<uint32_t>(-1);
    attr.minreq = static_cast<uint32_t>(-1);
    attr.fragsize = static_cast<uint32_t>(-1);
    const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY);
    if (pa_stream_connect_playback(s.stream, s.device.c_str(), &attr, flags, nullptr, nullptr) < 0)
        quit(s, 1);
}

}  // namespace

int main(int argc, char** argv) {
    Sink s;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (arg == "--device" && value) {
            s.device = value;
        } else if (arg == "--rate" && value) {
            s.rate = static_cast<uint32_t>(std::strtoul(value, nullptr, 10));
        } else if (arg == "--latency-msec" && value) {
            s.latencyMs = static_cast<uint32_t>(std::strtoul(value, nullptr, 10));
        } else {
            std::fprintf(stderr,
                         "usage: vellatone-tv-sink [--device SINK] [--rate HZ] "
                         "[--latency-msec MS]\n");
            return 2;
        }
        ++i;
    }
    if (s.rate < 8000 || s.rate > 192000) return 2;
    fcntl(0, F_SETFL, fcntl(0, F_GETFL) | O_NONBLOCK);

    s.loop = pa_mainloop_new();
    s.api = pa_mainloop_get_api(s.loop);
    s.context = pa_context_new(s.api, "fake-tv");
    pa_context_set_state_callback(
        s.context,
        [](pa_context* c, void* user) {
            auto& sink = *static_cast<Sink*>(user);
            const auto state = pa_context_get_state(c);
            if (state == PA_CONTEXT_READY) openStream(sink);
            if (state == PA_CONTEXT_FAILED || state == PA_CONTEXT_TERMINATED) quit(sink, 1);
        },
        &s);
    if (pa_context_connect(s.context, nullptr, PA_CONTEXT_NOFLAGS, nullptr) < 0) {
        std::fprintf(stderr, "vellatone-tv-sink: no sound server\n");
        return 1;
    }
    s.api->io_new(s.api, 0, PA_IO_EVENT_INPUT, onInput, &s);
    s.freshTiming = s.api->defer_new(s.api, onFreshTiming, &s);
    s.api->defer_enable(s.freshTiming, 0);
    timeval first{};
    pa_timeval_add(pa_gettimeofday(&first), kTimerEveryUsec);
    s.api->time_new(s.api, &first, onTimer, &s);

    int code = 0;
    pa_mainloop_run(s.loop, &code);
    if (s.stream) pa_stream_unref(s.stream);
    pa_context_disconnect(s.context);
    pa_context_unref(s.context);
    pa_mainloop_free(s.loop);
    return code;
}
