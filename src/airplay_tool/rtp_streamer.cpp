#include "airplay_tool/rtp_streamer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>

#include "airplay_tool/slot_assembler.h"
#include "airplay_tool/status_writer.h"

namespace vt::airplay_tool {

namespace {

constexpr int64_t kNsPerMs = 1'000'000;
constexpr int64_t kSyncIntervalNs = 1'000 * kNsPerMs;
// The receiver ignores sync packets until it has had a timing answer; it asks
// right after RECORD, so this wait is normally over before any audio exists.
constexpr int64_t kTimingWaitNs = 2'000 * kNsPerMs;
constexpr int64_t kSleepSliceNs = 20 * kNsPerMs;
constexpr int kPollSliceMs = 100;
// shairport-sync 3.3.8 works out how much its buffer holds from the sequence
// numbers without minding their wrap, so a FLUSH while it holds packets from
// both sides of the wrap is not done until play has crossed it (up to the
// lead later). Starting low puts the first wrap over seven minutes away.
constexpr uint32_t kFirstSeqRange = 8192;
// Room for a start up to eight seconds ahead of the audio that fills it.
constexpr size_t kMaxQueuedPackets = 8 * kRaopSampleRate / kFramesPerPacket;

int bindUdp(const std::string& localIP, int& port, std::string& error) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = std::string("cannot make a UDP socket: ") + std::strerror(errno);
        return -1;
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    if (inet_pton(AF_INET, localIP.c_str(), &a.sin_addr) != 1)
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        error = std::string("cannot bind a UDP socket: ") + std::strerror(errno);
        close(fd);
        return -1;
    }
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
    return fd;
}

sockaddr_in addressOf(const std::string& ip, int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, ip.c_str(), &a.sin_addr);
    return a;
}

}  // namespace

RtpStreamer::RtpStreamer(StatusWriter& status, std::string localIP, Framing framing)
    : status_(status),
      localIP_(std::move(localIP)),
      framing_(std::move(framing)),
      backlog_(kMaxAudioPacketBytes) {
    std::random_device random;
    firstSeq_ = static_cast<uint16_t>(random() % kFirstSeqRange);
    // Kept clear of 0, which a receiver reads as "no reference".
    firstTimestamp_ = static_cast<uint32_t>(random()) | 0x100u;
    ssrc_ = framing_.ssrc.value_or(static_cast<uint32_t>(random()));
    nextSeq_ = firstSeq_;
}

RtpStreamer::~RtpStreamer() {
    stop();
    for (int fd : {controlFd_, timingFd_, audioFd_, wakeFd_})
        if (fd >= 0) close(fd);
}

bool RtpStreamer::open(std::string& error) {
    controlFd_ = bindUdp(localIP_, controlPort_, error);
    if (controlFd_ < 0) return false;
    timingFd_ = bindUdp(localIP_, timingPort_, error);
    if (timingFd_ < 0) return false;
    int audioPort = 0;
    audioFd_ = bindUdp(localIP_, audioPort, error);
    if (audioFd_ < 0) return false;
    wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd_ < 0) {
        error = std::string("eventfd: ") + std::strerror(errno);
        return false;
    }
    return true;
}

void RtpStreamer::setReceiver(const std::string& receiverIP, ReceiverPorts ports) {
    receiverIP_ = receiverIP;
    ports_ = ports;
    sockaddr_in audio = addressOf(receiverIP, ports.audio);
    ::connect(audioFd_, reinterpret_cast<sockaddr*>(&audio), sizeof audio);
}

void RtpStreamer::startResponder() {
    if (!responder_.joinable()) responder_ = std::thread([this] { respond(); });
}

void RtpStreamer::respond() {
    uint8_t buf[2048];
    pollfd fds[3] = {{timingFd_, POLLIN, 0}, {controlFd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
    while (!stopping_.load()) {
        if (poll(fds, 3, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[2].revents) return;
        if (fds[0].revents & POLLIN) {
            sockaddr_in from{};
            socklen_t len = sizeof from;
            ssize_t n =
                recvfrom(timingFd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
            const NtpTime received = ntpFromUnixNs(unixNowNs());
            if (n > 0) {
                if (auto transmit = parseTimingRequest({buf, static_cast<size_t>(n)})) {
                    auto reply = makeTimingReply(*transmit, received, ntpFromUnixNs(unixNowNs()));
                    sendto(timingFd_, reply.data(), reply.size(), 0,
                           reinterpret_cast<sockaddr*>(&from), len);
                    timingExchanges_.fetch_add(1);
                    changed_.notify_all();
                }
            }
        }
        if (fds[1].revents & POLLIN) {
            ssize_t n = recv(controlFd_, buf, sizeof buf, 0);
            if (n <= 0) continue;
            auto request = parseResendRequest({buf, static_cast<size_t>(n)});
            if (!request || receiverIP_.empty()) continue;
            sockaddr_in to = addressOf(receiverIP_, ports_.control);
            const uint16_t count = std::min<uint16_t>(request->count, kBacklogPackets);
            for (uint16_t i = 0; i < count; ++i) {
                auto original = backlog_.find(static_cast<uint16_t>(request->firstSeq + i));
                if (original.empty()) continue;
                auto reply = makeResendReply(original);
                sendto(controlFd_, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&to),
                       sizeof to);
            }
        }
    }
}

void RtpStreamer::begin(const StreamStart& start) {
    if (reader_.joinable()) return;
    reader_ = std::thread([this, start] { readInput(start); });
    sender_ = std::thread([this] { sendPackets(); });
}

void RtpStreamer::beginTimeLine(const StreamStart& start, int64_t arrivalNs) {
    const int64_t at =
        std::max(start.requestedUnixMs * kNsPerMs, arrivalNs + int64_t{start.minLeadMs} * kNsPerMs);
    plan_.emplace(StreamTimeline(at, firstTimestamp_, latencyFramesForLead(at - arrivalNs)),
                  at - arrivalNs);
    status_.started(start.requestedUnixMs, at / kNsPerMs);
    changed_.notify_all();
}

void RtpStreamer::readInput(StreamStart start) {
    const size_t bytesPerFrame = start.format.bytesPerFrame();
    std::vector<uint8_t> input(kFramesPerPacket * bytesPerFrame);
    std::array<int16_t, kFramesPerPacket * 2> samples{};
    SlotAssembler assembler;
    uint64_t epoch = 0;  // the flush the assembler's packets belong after
    const SlotAssembler::Emit queuePacket = [&](int64_t slotFrame,
                                                std::span<const int16_t> slotSamples) {
        Packet packet;
        packet.frame = slotFrame;
        packAlacStereo16(slotSamples, packet.payload);
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return queue_.size() < kMaxQueuedPackets || stopping_.load(); });
        // A flush since it was placed dropped it with the rest.
        if (epoch_ != epoch) return;
        queue_.push_back(packet);
        changed_.notify_all();
    };
    size_t have = 0;  // bytes read and not yet placed: part of a frame
    while (!stopping_.load()) {
        pollfd p{start.inputFd, POLLIN, 0};
        const int rc = poll(&p, 1, kPollSliceMs);
        if (rc < 0 && errno != EINTR) break;
        if (rc <= 0) continue;
        // No more than completes the packet under way, and each read placed
        // by when it came: input that stalls halfway through a packet is
        // placed afresh from the frame where the stall broke it.
        const size_t wantedBytes = assembler.framesWanted() * bytesPerFrame;
        const ssize_t n = read(start.inputFd, input.data() + have, wantedBytes - have);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) break;
        const int64_t arrivalNs = unixNowNs();
        have += static_cast<size_t>(n);
        const size_t wholeFrames = have / bytesPerFrame;
        if (wholeFrames == 0) continue;
        const size_t used = wholeFrames * bytesPerFrame;
        std::optional<int64_t> placed;
        {
            std::lock_guard lock(mutex_);
            // Paused before anything was placed, input waits for PLAY.
            if (plan_ || !paused_) {
                if (!plan_) beginTimeLine(start, arrivalNs);
                if (epoch_ != epoch) {
                    assembler.clear();
                    epoch = epoch_;
                }
                // Paused, the time line still runs on with the input.
                const int64_t shiftedBefore = plan_->shiftedFrames();
                placed = plan_->place(arrivalNs, static_cast<int64_t>(wholeFrames));
                if (const int64_t shifted = plan_->shiftedFrames() - shiftedBefore;
                    shifted > 0 && framing_.reportsReanchor) {
                    reanchoredFrames_ += shifted;
                    status_.reanchor(shifted, reanchoredFrames_, kRaopSampleRate);
                }
                if (paused_) placed.reset();  // no one listens
            }
        }
        if (placed) {
            const size_t frames = toStereo16(start.format, {input.data(), used}, samples);
            assembler.add(*placed, std::span<const int16_t>(samples.data(), frames * 2),
                          queuePacket);
        } else {
            assembler.clear();  // its slot is gone, or no one listens
        }
        std::memmove(input.data(), input.data() + used, have - used);
        have -= used;
    }
    if (!stopping_.load()) assembler.finish(queuePacket);
    std::lock_guard lock(mutex_);
    readerDone_ = true;
    changed_.notify_all();
}

bool RtpStreamer::waitForTiming() {
    const int64_t until = unixNowNs() + kTimingWaitNs;
    while (timingExchanges_.load() == 0 && !stopping_.load() && unixNowNs() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return timingExchanges_.load() > 0;
}

void RtpStreamer::sendSync(const StreamTimeline& timeline, bool first) {
    std::vector<uint8_t> packet;
    if (framing_.sync) {
        packet = framing_.sync(timeline, unixNowNs(), first);
    } else {
        const SyncFields s = timeline.syncAt(unixNowNs());
        const auto ntpSync = makeSyncPacket(first, s.rtpLessLatency, s.ntp, s.rtp);
        packet.assign(ntpSync.begin(), ntpSync.end());
    }
    sockaddr_in to = addressOf(receiverIP_, ports_.control);
    sendto(controlFd_, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&to),
           sizeof to);
}

// Paced by the clock: each slot of the time line goes out when it is due,
// with the app's audio when it is there and as silence when it is not.
void RtpStreamer::sendPackets() {
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return plan_.has_value() || stopping_.load() || readerDone_; });
        if (!plan_) return;
    }
    if (framing_.waitsForTiming) waitForTiming();
    std::array<uint8_t, kAlacFrameBytes> silence{};
    packAlacStereo16(std::array<int16_t, kFramesPerPacket * 2>{}, silence);
    uint64_t epoch = 0;
    bool first = true;
    int64_t lastSync = 0;
    std::array<uint8_t, kMaxAudioPacketBytes> wire{};
    std::unique_lock lock(mutex_);
    while (!stopping_.load()) {
        if (!plan_) {
            if (readerDone_ && queue_.empty()) break;
            changed_.wait_for(lock, std::chrono::milliseconds(kPollSliceMs));
            continue;
        }
        if (epoch != epoch_) {
            // A new time line: the receiver is told afresh where it stands.
            epoch = epoch_;
            first = true;
        }
        const int64_t now = unixNowNs();
        if (!first && now - lastSync >= kSyncIntervalNs) {
            const StreamTimeline timeline = plan_->timeline();
            lock.unlock();
            sendSync(timeline, false);
            lock.lock();
            lastSync = now;
            continue;
        }
        // After the input ends, what is queued goes out and nothing more.
        if (readerDone_ && queue_.empty()) break;
        const std::optional<int64_t> queued =
            queue_.empty() ? std::nullopt : std::optional<int64_t>(queue_.front().frame);
        // Paused, the slots still go out, silent: the receiver starts afresh
        // after the flush at once, not when the sound comes back, and a long
        // pause does not look to it like a sender that has gone.
        const SendPlan::Step step = plan_->next(now, queued, paused_);
        using Kind = SendPlan::Step::Kind;
        if (step.kind == Kind::drop) {
            queue_.pop_front();
            changed_.notify_all();
            continue;
        }
        if (step.kind == Kind::wait) {
            const int64_t until =
                first ? step.untilNs : std::min(step.untilNs, lastSync + kSyncIntervalNs);
            changed_.wait_for(
                lock, std::chrono::nanoseconds(std::clamp<int64_t>(until - now, 0, kSleepSliceNs)));
            continue;
        }
        const StreamTimeline timeline = plan_->timeline();
        const uint32_t rtp = timeline.rtpOf(plan_->slotFrame());
        if (step.kind == Kind::send) {
            std::copy(queue_.front().payload.begin(), queue_.front().payload.end(),
                      wire.begin() + kRtpHeaderBytes);
            queue_.pop_front();
            changed_.notify_all();
        } else {
            std::copy(silence.begin(), silence.end(), wire.begin() + kRtpHeaderBytes);
        }
        plan_->sent();
        const uint16_t seq = nextSeq_++;
        lock.unlock();
        if (first) {
            sendSync(timeline, true);
            lastSync = unixNowNs();
        }
        writeAudioHeader(std::span<uint8_t, kRtpHeaderBytes>(wire.data(), kRtpHeaderBytes), first,
                         seq, rtp, ssrc_);
        const size_t length = framing_.seal ? framing_.seal(wire, kAlacFrameBytes)
                                            : kRtpHeaderBytes + kAlacFrameBytes;
        // Kept before it goes: a receiver may ask for it again at once.
        backlog_.store(seq, std::span<const uint8_t>(wire.data(), length));
        const bool refused = send(audioFd_, wire.data(), length, 0) < 0 && errno == ECONNREFUSED;
        first = false;
        lock.lock();
        if (refused) {
            lock.unlock();
            fail("the receiver stopped taking audio");
            lock.lock();
            break;
        }
    }
    lock.unlock();
    if (!stopping_.load() && !failure() && !inputEnded_.exchange(true)) status_.eof();
}

RtpStreamer::FlushPoint RtpStreamer::flush(bool pause) {
    std::lock_guard lock(mutex_);
    queue_.clear();
    ++epoch_;
    if (pause && !paused_ && plan_) pausedAtFrame_ = plan_->slotFrame();
    paused_ = paused_ || pause;
    changed_.notify_all();
    if (!plan_) return {nextSeq_, firstTimestamp_};
    return {nextSeq_, plan_->timeline().rtpOf(plan_->slotFrame())};
}

void RtpStreamer::resume() {
    std::lock_guard lock(mutex_);
    if (!paused_) return;
    paused_ = false;
    if (plan_) {
        // What the app writes from now on is heard its lead later; the slots
        // between went out silent.
        plan_->restartInput();
        skippedFrames_ += plan_->freshFrame(unixNowNs()) - pausedAtFrame_;
    }
    changed_.notify_all();
}

int64_t RtpStreamer::heardFramesLocked(int64_t nowNs) const {
    if (!plan_) return 0;
    const int64_t through = paused_ ? pausedAtFrame_ : plan_->slotFrame();
    return std::clamp<int64_t>(plan_->timeline().frameHeardAt(nowNs), 0, through) - skippedFrames_;
}

int64_t RtpStreamer::elapsedMs() const {
    std::lock_guard lock(mutex_);
    return std::max<int64_t>(0, heardFramesLocked(unixNowNs())) * 1000 / kRaopSampleRate;
}

void RtpStreamer::fail(const std::string& why) {
    std::lock_guard lock(mutex_);
    if (!failure_) failure_ = why;
}

std::optional<std::string> RtpStreamer::failure() const {
    std::lock_guard lock(mutex_);
    return failure_;
}

uint32_t RtpStreamer::rtpNow() const {
    std::lock_guard lock(mutex_);
    if (!plan_) return firstTimestamp_;
    const StreamTimeline& t = plan_->timeline();
    return t.rtpOf(std::max<int64_t>(0, t.frameHeardAt(unixNowNs())));
}

void RtpStreamer::stop() {
    stopping_.store(true);
    if (wakeFd_ >= 0) {
        uint64_t one = 1;
        (void)!write(wakeFd_, &one, sizeof one);
    }
    changed_.notify_all();
    for (std::thread* t : {&reader_, &sender_, &responder_})
        if (t->joinable()) t->join();
}

}  // namespace vt::airplay_tool
