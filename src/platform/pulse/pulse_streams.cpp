#include "platform/pulse/pulse_streams.h"

#include <pulse/rtclock.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "core/stream_callbacks.h"
#include "dispatch/clock.h"
#include "platform/pulse/pulse_convert.h"
#include "platform/pulse/stream_clock.h"

namespace vt::platform::pulse {

namespace {

// How often a stream asks for a timing snapshot. pipewire-pulse answers
// with the position its last graph cycle left and the wall clock at the
// moment it answers, so a snapshot taken at a random moment is late by
// anything up to a whole quantum (5.3 ms at 256 frames). Asked for right
// after the server's request or data arrives, which it sends at the end of
// a cycle, it is late by about 0.05-0.1 ms instead. PulseAudio reads both
// at the answer and does not care when it is asked.
constexpr double kTimingIntervalSec = 0.020;
// A stream the server sends nothing to still gets a snapshot this often.
constexpr double kQuietTimingIntervalSec = 0.100;
constexpr pa_usec_t kTimerIntervalUsec = 20000;
constexpr uint32_t kBytesPerFrame = 8;  // float32 stereo
// A block must reach the server this long before the sink reads it.
constexpr double kDeliveryGuardSec = 0.001;
// Written after a skip even when the skip alone answers the server's request,
// since a seek travels only with data: 1 ms of 48 kHz float stereo.
constexpr size_t kMinWriteAfterSkipBytes = 48 * kBytesPerFrame;
// The engine renders a request in blocks of at most this much, so that when
// the newest audio has not been captured yet all but the last few
// milliseconds of it are still written.
constexpr double kRenderBlockMs = 5.0;

size_t bytesOfMs(double ms, uint32_t rate) {
    return static_cast<size_t>(std::lround(ms * rate / 1000.0)) * kBytesPerFrame;
}

// Runs `work` on the loop's thread and waits for it. The caller holds the
// loop's lock only for as long as posting takes: a thread of ordinary
// priority that held it through a whole open or close could be preempted
// while the stream thread, real-time and every stream's callbacks with it,
// waits behind it for as long as the machine is busy.
void runOnLoopThread(PulseLoop& loop, const std::function<void()>& work) {
    if (loop.inLoopThread()) {
        work();
        return;
    }
    struct Call {
        const std::function<void()>* work;
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false;
    } call{&work, {}, {}, false};
    {
        PulseLoop::Lock lock(loop);
        pa_mainloop_api_once(
            pa_threaded_mainloop_get_api(loop.loop()),
            [](pa_mainloop_api*, void* raw) {
                auto* c = static_cast<Call*>(raw);
                (*c->work)();
                std::lock_guard guard(c->mutex);
                c->finished = true;
                c->done.notify_all();
            },
            &call);
    }
    std::unique_lock guard(call.mutex);
    call.done.wait(guard, [&] { return call.finished; });
}

// What every stream of ours shares: the pa_stream, its 20 ms timing poll and
// the bookkeeping to shut both down without a callback outliving us.
class PulseStream : public Stream {
  public:
    PulseStream(std::shared_ptr<PulseLoop> loop, double rate, void* clientData)
        : loop_(std::move(loop)),
          rate_(rate),
          bytesPerSecond_(rate * kBytesPerFrame),
          clientData_(clientData),
          clock_(bytesPerSecond_) {}

    ~PulseStream() override { close(); }
    double sampleRate() const override { return rate_; }

  protected:
    virtual void onTiming(const pa_timing_info& info) = 0;
    virtual void onReady() {}
    // From a stream callback, where the server has just finished a cycle:
    // a snapshot asked for now is fresh. Only marks it for the loop's next
    // turn, so the callback itself sends nothing.
    void timingAfterCycle(double now) {
        if (freshTiming_ && now - lastTimingRequest_ >= kTimingIntervalSec)
            pa_threaded_mainloop_get_api(loop_->loop())->defer_enable(freshTiming_, 1);
    }

    // Connects and waits until the stream runs; a non-zero status on failure.
    // Not on the loop's thread.
    int connect(bool playback, const std::string& deviceName, const std::string& shownName,
                const pa_buffer_attr& attr, pa_stream_flags_t flags, std::string& error);
    void close();
    void requestTiming();

    std::shared_ptr<PulseLoop> loop_;
    pa_stream* stream_ = nullptr;
    const double rate_;
    const double bytesPerSecond_;
    void* const clientData_;
    StreamClock clock_;
    int64_t lastSnapshotIndex_ = -1;

  private:
    enum class Opening { waiting, ready, failed };

    // On the loop's thread.
    int startConnecting(bool playback, const std::string& deviceName, const std::string& shownName,
                        const pa_buffer_attr& attr, pa_stream_flags_t flags);
    void teardown();
    void opened(Opening outcome);
    static void stateCallback(pa_stream* s, void* self);
    static void timerCallback(pa_mainloop_api*, pa_time_event* e, const struct timeval*,
                              void* self);
    static void timingCallback(pa_stream* s, int success, void* self);
    static void freshTimingCallback(pa_mainloop_api* api, pa_defer_event* e, void* self);

    pa_time_event* timer_ = nullptr;
    pa_defer_event* freshTiming_ = nullptr;
    double lastTimingRequest_ = 0;  // monotonic seconds
    pa_operation* pendingTiming_ = nullptr;
    std::mutex openMutex_;
    std::condition_variable openDone_;
    Opening opening_ = Opening::waiting;
    int openError_ = 0;
};

int PulseStream::connect(bool playback, const std::string& deviceName, const std::string& shownName,
                         const pa_buffer_attr& attr, pa_stream_flags_t flags, std::string& error) {
    int rc = 0;
    runOnLoopThread(*loop_,
                    [&] { rc = startConnecting(playback, deviceName, shownName, attr, flags); });
    if (rc == 0) {
        std::unique_lock guard(openMutex_);
        openDone_.wait(guard, [this] { return opening_ != Opening::waiting; });
        if (opening_ == Opening::failed) rc = openError_ ? openError_ : PA_ERR_UNKNOWN;
    }
    if (rc != 0) {
        error = pa_strerror(rc);
        runOnLoopThread(*loop_, [this] { teardown(); });
    }
    return rc;
}

int PulseStream::startConnecting(bool playback, const std::string& deviceName,
                                 const std::string& shownName, const pa_buffer_attr& attr,
                                 pa_stream_flags_t flags) {
    pa_sample_spec format{PA_SAMPLE_FLOAT32LE, static_cast<uint32_t>(rate_), 2};
    pa_channel_map map;
    pa_channel_map_init_stereo(&map);
    pa_proplist* props = ownStreamProperties(deviceName, shownName);
    stream_ =
        pa_stream_new_with_proplist(loop_->context(), shownName.c_str(), &format, &map, props);
    pa_proplist_free(props);
    if (!stream_) {
        const int code = pa_context_errno(loop_->context());
        return code ? code : PA_ERR_UNKNOWN;
    }
    pa_stream_set_state_callback(stream_, &PulseStream::stateCallback, this);
    int rc;
    if (playback) {
        // Full volume, set by us: nothing restores a volume someone once gave
        // a stream of this name, and the engine's gain is the only one.
        pa_cvolume full;
        pa_cvolume_set(&full, 2, PA_VOLUME_NORM);
        rc = pa_stream_connect_playback(stream_, deviceName.c_str(), &attr, flags, &full, nullptr);
    } else {
        rc = pa_stream_connect_record(stream_, deviceName.c_str(), &attr, flags);
    }
    if (rc != 0) {
        const int code = pa_context_errno(loop_->context());
        return code ? code : PA_ERR_UNKNOWN;
    }
    return 0;
}

void PulseStream::opened(Opening outcome) {
    if (outcome == Opening::ready) {
        timer_ = pa_context_rttime_new(loop_->context(), pa_rtclock_now() + kTimerIntervalUsec,
                                       &PulseStream::timerCallback, this);
        pa_mainloop_api* api = pa_threaded_mainloop_get_api(loop_->loop());
        freshTiming_ = api->defer_new(api, &PulseStream::freshTimingCallback, this);
        api->defer_enable(freshTiming_, 0);
        requestTiming();
        onReady();
    } else {
        openError_ = pa_context_errno(loop_->context());
    }
    std::lock_guard guard(openMutex_);
    opening_ = outcome;
    openDone_.notify_all();
}

void PulseStream::stateCallback(pa_stream* s, void* self) {
    auto* me = static_cast<PulseStream*>(self);
    const pa_stream_state_t st = pa_stream_get_state(s);
    std::unique_lock guard(me->openMutex_);
    if (me->opening_ != Opening::waiting) return;
    guard.unlock();
    if (st == PA_STREAM_READY) {
        me->opened(Opening::ready);
    } else if (!PA_STREAM_IS_GOOD(st)) {
        me->opened(Opening::failed);
    }
}

void PulseStream::close() {
    if (!stream_) return;
    runOnLoopThread(*loop_, [this] { teardown(); });
}

void PulseStream::teardown() {
    if (!stream_) return;
    if (timer_) {
        pa_threaded_mainloop_get_api(loop_->loop())->time_free(timer_);
        timer_ = nullptr;
    }
    if (freshTiming_) {
        pa_threaded_mainloop_get_api(loop_->loop())->defer_free(freshTiming_);
        freshTiming_ = nullptr;
    }
    // A timing answer still on its way would call back into a freed object.
    if (pendingTiming_) {
        pa_operation_cancel(pendingTiming_);
        pa_operation_unref(pendingTiming_);
        pendingTiming_ = nullptr;
    }
    pa_stream_set_state_callback(stream_, nullptr, nullptr);
    pa_stream_set_write_callback(stream_, nullptr, nullptr);
    pa_stream_set_read_callback(stream_, nullptr, nullptr);
    pa_stream_set_underflow_callback(stream_, nullptr, nullptr);
    if (pa_stream_get_state(stream_) == PA_STREAM_READY) pa_stream_disconnect(stream_);
    pa_stream_unref(stream_);
    stream_ = nullptr;
}

void PulseStream::requestTiming() {
    if (pendingTiming_ || pa_stream_get_state(stream_) != PA_STREAM_READY) return;
    pendingTiming_ = pa_stream_update_timing_info(stream_, &PulseStream::timingCallback, this);
    if (pendingTiming_) lastTimingRequest_ = dispatch::monotonicSeconds();
}

void PulseStream::timerCallback(pa_mainloop_api*, pa_time_event* e, const struct timeval*,
                                void* self) {
    auto* me = static_cast<PulseStream*>(self);
    if (dispatch::monotonicSeconds() - me->lastTimingRequest_ >= kQuietTimingIntervalSec)
        me->requestTiming();
    pa_context_rttime_restart(me->loop_->context(), e, pa_rtclock_now() + kTimerIntervalUsec);
}

void PulseStream::freshTimingCallback(pa_mainloop_api* api, pa_defer_event* e, void* self) {
    api->defer_enable(e, 0);
    static_cast<PulseStream*>(self)->requestTiming();
}

void PulseStream::timingCallback(pa_stream* s, int success, void* self) {
    auto* me = static_cast<PulseStream*>(self);
    if (me->pendingTiming_) {
        pa_operation_unref(me->pendingTiming_);
        me->pendingTiming_ = nullptr;
    }
    if (!success) return;
    if (const pa_timing_info* info = pa_stream_get_timing_info(s)) me->onTiming(*info);
}

// ---------------------------------------------------------------- playback

class PlaybackStream final : public PulseStream {
  public:
    PlaybackStream(std::shared_ptr<PulseLoop> loop, double rate, PlaybackCallback callback,
                   void* clientData)
        : PulseStream(std::move(loop), rate, clientData), callback_(callback) {}
    // Stop the callbacks before this part of the object goes.
    ~PlaybackStream() override { close(); }

    int open(const std::string& sinkName, const std::string& shownName, std::string& error) {
        // tlength 40 ms in all (the server splits it between our queue and
        // the sink), a request every 10 ms. That leaves the sink a latency of
        // a whole 10 ms, which at 44.1 kHz is 441 frames: a null sink that
        // paces itself in whole microseconds then keeps exact time, where at
        // 5 ms it runs about 200 ppm fast. It also rides out short stalls of
        // a busy machine without underruns. prebuf 0: the server never stops
        // the stream for an underrun, so its read position keeps time and
        // what we write lands exactly where the clock says.
        pa_buffer_attr attr{};
        attr.maxlength = static_cast<uint32_t>(bytesOfMs(200, static_cast<uint32_t>(rate_)));
        attr.tlength = static_cast<uint32_t>(bytesOfMs(40, static_cast<uint32_t>(rate_)));
        attr.prebuf = 0;
        attr.minreq = static_cast<uint32_t>(bytesOfMs(10, static_cast<uint32_t>(rate_)));
        attr.fragsize = static_cast<uint32_t>(-1);
        auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE);
        return connect(true, sinkName, shownName, attr, flags, error);
    }

    uint64_t underruns() const override { return underruns_.load(std::memory_order_relaxed); }

  private:
    void onReady() override {
        pa_stream_set_write_callback(stream_, &PlaybackStream::writeCallback, this);
        pa_stream_set_underflow_callback(stream_, &PlaybackStream::underflowCallback, this);
    }

    void onTiming(const pa_timing_info& info) override {
        // A position that has not moved says nothing about the rate.
        if (info.read_index_corrupt || info.read_index == lastSnapshotIndex_) return;
        lastSnapshotIndex_ = info.read_index;
        const double ts = monotonicOfWall(info.timestamp);
        const double sinkSec = static_cast<double>(info.sink_usec) * 1e-6;
        const double readSec = static_cast<double>(info.read_index) / bytesPerSecond_;
        clock_.addSnapshot(ts + sinkSec, readSec);
        lastReadIndex_ = info.read_index;
        lastReadHost_ = ts;
        // Nothing is written before the first snapshot: fill now rather than
        // wait for the server's next request.
        if (!started_) fill(pa_stream_writable_size(stream_), dispatch::monotonicSeconds());
    }

    static void writeCallback(pa_stream*, size_t nbytes, void* self) {
        auto* me = static_cast<PlaybackStream*>(self);
        const double now = dispatch::monotonicSeconds();
        me->timingAfterCycle(now);
        me->fill(nbytes, now);
    }
    static void underflowCallback(pa_stream*, void* self) {
        static_cast<PlaybackStream*>(self)->underruns_.fetch_add(1, std::memory_order_relaxed);
    }

    // The stream loop's thread: no allocation, no locks, no logging.
    void fill(size_t nbytes, double now) {
        if (!clock_.valid() || nbytes == static_cast<size_t>(-1) || nbytes < kBytesPerFrame) return;
        // The sink reads byte W at lastReadHost + (W - lastReadIndex) / rate. What
        // arrives after that moment is thrown away by the server, so after a
        // stall (or at the start) begin where the sink will read next instead of
        // rendering audio nobody hears.
        const double readsAt =
            lastReadHost_ + static_cast<double>(written_ - lastReadIndex_) / bytesPerSecond_;
        int64_t skip = 0;
        if (readsAt < now + kDeliveryGuardSec) {
            double ahead = (now + kDeliveryGuardSec - lastReadHost_) * bytesPerSecond_;
            int64_t target = lastReadIndex_ + static_cast<int64_t>(std::ceil(ahead));
            target += (kBytesPerFrame - target % kBytesPerFrame) % kBytesPerFrame;
            if (target > written_) skip = target - written_;
        }
        started_ = true;

        // After an underrun the server asks for what the sink read past our
        // data as well as for a full buffer. The bytes skipped here answer
        // that part of the request: a relative seek counts against it on both
        // sides of the connection (an absolute one does not), so only the rest
        // is written. Writing the whole request after the skip would queue the
        // underrun's length on top of a full buffer, ahead of any captured
        // audio, and the engine could only fill it with silence.
        size_t remaining = nbytes - nbytes % kBytesPerFrame;
        if (skip > 0) {
            const size_t skipped = static_cast<size_t>(skip);
            remaining = remaining > skipped + kMinWriteAfterSkipBytes ? remaining - skipped
                                                                      : kMinWriteAfterSkipBytes;
        }
        while (remaining > 0) {
            void* data = nullptr;
            size_t n = std::min<size_t>(remaining, RE_IO_MAX_FRAMES * kBytesPerFrame);
            if (pa_stream_begin_write(stream_, &data, &n) < 0 || !data) return;
            n = std::min(n - n % kBytesPerFrame, remaining);
            const int64_t at = written_ + skip;
            // Rendered in short blocks but sent as one piece: every piece is
            // a message the server's main thread, not a real-time one, has
            // to handle in time.
            size_t rendered = 0;
            bool waiting = false;
            while (rendered < n && !waiting) {
                const size_t block = std::min(n - rendered, blockBytes_);
                const int64_t blockAt = at + static_cast<int64_t>(rendered);
                waiting = !callback_(
                    clientData_, reinterpret_cast<float*>(static_cast<uint8_t*>(data) + rendered),
                    static_cast<uint32_t>(block / kBytesPerFrame), clock_.hostTimeOf(blockAt),
                    static_cast<double>(blockAt / kBytesPerFrame));
                if (!waiting) rendered += block;
            }
            // Silence for want of captured audio is not written. Queued, it
            // would hold the audio back by as much when it comes. Left out,
            // the next request takes it up from here, or, should the sink
            // run dry first (prebuf 0: the server plays silence of its own
            // and keeps time), from where the sink reads then: either way
            // the audio plays as soon as it is here.
            if (rendered == 0) {
                pa_stream_cancel_write(stream_);
                return;
            }
            if (pa_stream_write(stream_, data, rendered, nullptr, skip, PA_SEEK_RELATIVE) < 0)
                return;
            written_ = at + static_cast<int64_t>(rendered);
            skip = 0;
            remaining -= rendered;
            if (waiting) return;
        }
    }

    const PlaybackCallback callback_;
    const size_t blockBytes_ = std::min(bytesOfMs(kRenderBlockMs, static_cast<uint32_t>(rate_)),
                                        size_t{RE_IO_MAX_FRAMES} * kBytesPerFrame);
    int64_t written_ = 0;
    int64_t lastReadIndex_ = 0;
    double lastReadHost_ = 0;
    bool started_ = false;
    std::atomic<uint64_t> underruns_{0};
};

// ------------------------------------------------------------------ record

class RecordStream final : public PulseStream {
  public:
    RecordStream(std::shared_ptr<PulseLoop> loop, double rate, CaptureCallback callback,
                 void* clientData)
        : PulseStream(std::move(loop), rate, clientData), callback_(callback) {}
    ~RecordStream() override { close(); }

    int open(const std::string& sourceName, const std::string& shownName, std::string& error) {
        pa_buffer_attr attr{};
        attr.maxlength = static_cast<uint32_t>(-1);
        attr.fragsize = static_cast<uint32_t>(bytesOfMs(5, static_cast<uint32_t>(rate_)));
        attr.tlength = attr.prebuf = attr.minreq = static_cast<uint32_t>(-1);
        auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE);
        return connect(false, sourceName, shownName, attr, flags, error);
    }

  private:
    void onReady() override {
        pa_stream_set_read_callback(stream_, &RecordStream::readCallback, this);
    }

    void onTiming(const pa_timing_info& info) override {
        // Until the sink plays, nothing reaches the monitor and the
        // position stands still; such snapshots say nothing about the rate.
        if (info.write_index_corrupt || info.write_index == lastSnapshotIndex_) return;
        lastSnapshotIndex_ = info.write_index;
        // The position playing into the monitored sink at `timestamp`:
        // what the server has queued for us, plus what the source still holds,
        // less what the sink has rendered ahead of playing it.
        const double position = static_cast<double>(info.write_index) / bytesPerSecond_ +
                                static_cast<double>(info.source_usec) * 1e-6 -
                                static_cast<double>(info.sink_usec) * 1e-6;
        clock_.addSnapshot(monotonicOfWall(info.timestamp), position);
    }

    static void readCallback(pa_stream*, size_t, void* self) {
        auto* me = static_cast<RecordStream*>(self);
        me->timingAfterCycle(dispatch::monotonicSeconds());
        me->drain();
    }

    // The stream loop's thread: no allocation, no locks, no logging.
    void drain() {
        for (;;) {
            const void* data = nullptr;
            size_t n = 0;
            if (pa_stream_peek(stream_, &data, &n) < 0 || n == 0) return;
            if (data) deliver(static_cast<const uint8_t*>(data), n);
            // A hole (no data) still moves the position on.
            read_ += static_cast<int64_t>(n);
            pa_stream_drop(stream_);
        }
    }

    void deliver(const uint8_t* bytes, size_t n) {
        size_t frames = n / kBytesPerFrame;
        size_t done = 0;
        while (done < frames) {
            size_t chunk = std::min<size_t>(frames - done, RE_IO_MAX_FRAMES);
            int64_t position = read_ + static_cast<int64_t>(done * kBytesPerFrame);
            const double hostSec = clock_.valid() ? clock_.hostTimeOf(position) : 0.0;
            callback_(clientData_, reinterpret_cast<const float*>(bytes + done * kBytesPerFrame),
                      static_cast<uint32_t>(chunk), hostSec,
                      static_cast<double>(position / kBytesPerFrame));
            done += chunk;
        }
    }

    const CaptureCallback callback_;
    int64_t read_ = 0;
};

template <class S, class Callback>
StreamResult openWith(std::shared_ptr<PulseLoop> loop, const std::string& name,
                      const std::string& shownName, uint32_t rate, Callback callback,
                      void* clientData) {
    StreamResult result;
    if (!loop || !loop->ready()) {
        result.status = PA_ERR_CONNECTIONREFUSED;
        result.error = pa_strerror(result.status);
        return result;
    }
    auto stream = std::make_unique<S>(loop, rate, callback, clientData);
    result.status = stream->open(name, shownName, result.error);
    if (result.status == 0) result.stream = std::move(stream);
    return result;
}

}  // namespace

StreamResult openPlaybackStream(std::shared_ptr<PulseLoop> loop, const std::string& sinkName,
                                const std::string& shownName, uint32_t rate,
                                PlaybackCallback callback, void* clientData) {
    return openWith<PlaybackStream>(std::move(loop), sinkName, shownName, rate, callback,
                                    clientData);
}

StreamResult openRecordStream(std::shared_ptr<PulseLoop> loop, const std::string& sourceName,
                              uint32_t rate, CaptureCallback callback, void* clientData) {
    return openWith<RecordStream>(std::move(loop), sourceName, "Vellatone capture", rate, callback,
                                  clientData);
}

}  // namespace vt::platform::pulse
