#include "recorder.h"

#include "clock_fit.h"

#include <pulse/pulseaudio.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace vt::syncmeter {

namespace {

double clockSec(clockid_t id) {
    timespec ts{};
    clock_gettime(id, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

struct Channel {
    Recording rec;
    pa_stream* stream = nullptr;
    pa_sample_spec spec{};
    uint64_t bytesTaken = 0;
    std::vector<ClockPoint> starts;
    bool ready = false;
    bool failed = false;
    bool recording = false;
};

struct Session {
    pa_mainloop* loop = nullptr;
    pa_context* context = nullptr;
    std::vector<std::unique_ptr<Channel>> channels;
    bool contextReady = false;
    bool contextFailed = false;
    int pendingInfo = 0;
};

void onContextState(pa_context* c, void* user) {
    auto* s = static_cast<Session*>(user);
    switch (pa_context_get_state(c)) {
        case PA_CONTEXT_READY:
            s->contextReady = true;
            break;
        case PA_CONTEXT_FAILED:
        case PA_CONTEXT_TERMINATED:
            s->contextFailed = true;
            break;
        default:
            break;
    }
}

void onSourceInfo(pa_context*, const pa_source_info* info, int eol, void* user) {
    auto* ch = static_cast<Channel*>(user);
    if (eol < 0) ch->failed = true;
    if (info) ch->rec.rate = info->sample_spec.rate;
}

void onStreamState(pa_stream* st, void* user) {
    auto* ch = static_cast<Channel*>(user);
    switch (pa_stream_get_state(st)) {
        case PA_STREAM_READY:
            ch->ready = true;
            break;
        case PA_STREAM_FAILED:
        case PA_STREAM_TERMINATED:
            ch->failed = true;
            break;
        default:
            break;
    }
}

void onRead(pa_stream* st, size_t, void* user) {
    auto* ch = static_cast<Channel*>(user);
    const void* data = nullptr;
    size_t bytes = 0;
    while (pa_stream_readable_size(st) > 0) {
        if (pa_stream_peek(st, &data, &bytes) < 0 || bytes == 0) break;
        if (ch->recording) {
            size_t frames = bytes / 8;
            if (data) {
                const float* f = static_cast<const float*>(data);
                for (size_t i = 0; i < frames; ++i) {
                    ch->rec.left.push_back(f[2 * i]);
                    ch->rec.right.push_back(f[2 * i + 1]);
                }
            } else {
                // A hole in the stream: it still takes its place in time.
                ch->rec.holeFrames += frames;
                ch->rec.left.insert(ch->rec.left.end(), frames, 0.0f);
                ch->rec.right.insert(ch->rec.right.end(), frames, 0.0f);
            }
        }
        ch->bytesTaken += bytes;
        pa_stream_drop(st);
    }
}

void onTiming(pa_stream* st, int success, void* user) {
    auto* ch = static_cast<Channel*>(user);
    if (!success || !ch->recording) return;
    const pa_timing_info* ti = pa_stream_get_timing_info(st);
    if (!ti || ti->write_index_corrupt) return;
    // The timestamp is wall-clock time; put it on the monotonic clock.
    double wallToMono = clockSec(CLOCK_MONOTONIC) - clockSec(CLOCK_REALTIME);
    double tsMono = static_cast<double>(ti->timestamp.tv_sec) +
                    static_cast<double>(ti->timestamp.tv_usec) * 1e-6 + wallToMono;
    double written = static_cast<double>(ti->write_index) / (8.0 * ch->rec.rate);
    double playing = written + static_cast<double>(ti->source_usec) * 1e-6 -
                     static_cast<double>(ti->sink_usec) * 1e-6;
    ch->starts.push_back({playing, tsMono - playing});
}

// Runs the loop until `until` (CLOCK_MONOTONIC seconds), waking for every
// event. libpulse reads one piece of one message per wakeup: a loop that
// slept between passes would fall behind four record streams, and the
// server would drop what it could not send.
void iterateUntilTime(Session& s, double until) {
    for (double now = clockSec(CLOCK_MONOTONIC); now < until; now = clockSec(CLOCK_MONOTONIC)) {
        auto timeoutUsec = static_cast<int>((until - now) * 1e6) + 1;
        if (pa_mainloop_prepare(s.loop, timeoutUsec) < 0 || pa_mainloop_poll(s.loop) < 0 ||
            pa_mainloop_dispatch(s.loop) < 0) {
            throw std::runtime_error("sound server loop failed");
        }
    }
}

template <typename Done>
void iterateUntil(Session& s, Done done, double timeout, const char* what) {
    double end = clockSec(CLOCK_MONOTONIC) + timeout;
    while (!done()) {
        if (clockSec(CLOCK_MONOTONIC) > end || s.contextFailed) {
            throw std::runtime_error(std::string("timed out waiting for ") + what);
        }
        pa_mainloop_iterate(s.loop, 1, nullptr);
    }
}

}  // namespace

std::vector<Recording> recordSources(const std::vector<RecordRequest>& requests, double seconds) {
    Session s;
    s.loop = pa_mainloop_new();
    s.context = pa_context_new(pa_mainloop_get_api(s.loop), "vellatone-syncmeter");
    pa_context_set_state_callback(s.context, onContextState, &s);
    if (pa_context_connect(s.context, nullptr, PA_CONTEXT_NOFLAGS, nullptr) < 0) {
        throw std::runtime_error("cannot connect to the sound server");
    }
    auto cleanup = [&] {
        for (auto& ch : s.channels) {
            if (ch->stream) {
                pa_stream_disconnect(ch->stream);
                pa_stream_unref(ch->stream);
            }
        }
        pa_context_disconnect(s.context);
        pa_context_unref(s.context);
        pa_mainloop_free(s.loop);
    };
    try {
        iterateUntil(
            s, [&] { return s.contextReady; }, 5.0, "the sound server");

        for (const auto& r : requests) {
            auto ch = std::make_unique<Channel>();
            ch->rec.name = r.name;
            ch->rec.source = r.source;
            Channel* raw = ch.get();
            pa_operation* op =
                pa_context_get_source_info_by_name(s.context, r.source.c_str(), onSourceInfo, raw);
            iterateUntil(
                s, [&] { return pa_operation_get_state(op) != PA_OPERATION_RUNNING; }, 5.0,
                "source information");
            pa_operation_unref(op);
            if (raw->failed || raw->rec.rate <= 0) {
                throw std::runtime_error("no source named " + r.source);
            }
            // Record at the source's own rate: a resampler in the record path
            // would add a delay of its own to what we measure.
            raw->spec.format = PA_SAMPLE_FLOAT32LE;
            raw->spec.channels = 2;
            raw->spec.rate = static_cast<uint32_t>(raw->rec.rate);
            raw->stream = pa_stream_new(s.context, r.name.c_str(), &raw->spec, nullptr);
            pa_stream_set_state_callback(raw->stream, onStreamState, raw);
            pa_stream_set_read_callback(raw->stream, onRead, raw);
            pa_buffer_attr attr{};
            attr.maxlength = UINT32_MAX;
            attr.fragsize = static_cast<uint32_t>(pa_usec_to_bytes(10000, &raw->spec));
            if (pa_stream_connect_record(
                    raw->stream, r.source.c_str(), &attr,
                    static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE |
                                                   PA_STREAM_START_UNMUTED)) < 0) {
                throw std::runtime_error("cannot record " + r.source);
            }
            s.channels.push_back(std::move(ch));
        }
        iterateUntil(
            s,
            [&] {
                return std::all_of(s.channels.begin(), s.channels.end(),
                                   [](const auto& c) { return c->ready || c->failed; });
            },
            5.0, "the record streams");
        for (auto& ch : s.channels) {
            if (ch->failed) throw std::runtime_error("record stream failed on " + ch->rec.source);
        }

        // Let the streams settle, then record from the next byte each takes.
        iterateUntilTime(s, clockSec(CLOCK_MONOTONIC) + 0.3);
        std::vector<uint64_t> startByte;
        for (auto& ch : s.channels) {
            ch->recording = true;
            startByte.push_back(ch->bytesTaken);
        }
        double end = clockSec(CLOCK_MONOTONIC) + seconds;
        double nextSnapshot = 0;
        while (clockSec(CLOCK_MONOTONIC) < end) {
            double now = clockSec(CLOCK_MONOTONIC);
            if (now >= nextSnapshot) {
                for (auto& ch : s.channels) {
                    pa_operation* op = pa_stream_update_timing_info(ch->stream, onTiming, ch.get());
                    if (op) pa_operation_unref(op);
                }
                nextSnapshot = now + 0.02;
            }
            iterateUntilTime(s, std::min(nextSnapshot, end));
        }
        std::vector<Recording> out;
        for (size_t i = 0; i < s.channels.size(); ++i) {
            auto& ch = *s.channels[i];
            if (ch.failed) throw std::runtime_error("record stream failed on " + ch.rec.source);
            if (ch.starts.empty()) throw std::runtime_error("no timing for " + ch.rec.source);
            ClockLine line = fitClock(ch.starts);
            // The line is of the stream's byte 0; our first frame is
            // startByte later.
            double skipped = static_cast<double>(startByte[i]) / (8.0 * ch.rec.rate);
            ch.rec.firstFramePlayedSec = line.startSec + skipped * (1 + line.slope);
            ch.rec.secondsPerFrame = (1 + line.slope) / ch.rec.rate;
            ch.rec.clockPpm = -line.slope * 1e6;
            ch.rec.snapshots = line.used;
            ch.rec.startSpreadMs = line.spreadMs;
            if (const char* dump = std::getenv("VELLATONE_SYNCMETER_DUMP")) {
                // Every snapshot, for looking at how the server's timing scatters.
                std::string path = std::string(dump) + "/" + ch.rec.name + ".timing";
                if (FILE* f = std::fopen(path.c_str(), "w")) {
                    for (const auto& p : ch.starts) {
                        std::fprintf(f, "%.9f %.9f\n", p.positionSec, p.startSec);
                    }
                    std::fclose(f);
                }
            }
            out.push_back(std::move(ch.rec));
        }
        cleanup();
        return out;
    } catch (...) {
        cleanup();
        throw;
    }
}

}  // namespace vt::syncmeter
