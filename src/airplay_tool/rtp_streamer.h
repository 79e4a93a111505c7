// The UDP side of a realtime AirPlay session (AirPlay 1, and AirPlay 2's
// stream type 96): answers the receiver's timing requests and resend
// requests from the moment SETUP names our ports, and after START turns
// standard input into paced, stamped audio packets with sync packets once a
// second. How a packet is sealed and what a sync packet says is the route's
// (`Framing`); the pacing, the backlog and the threads are the same.
//
// Threads: the responder (timing and control sockets), the reader (standard
// input into a bounded queue of packets) and the sender (the queue onto the
// network at each packet's time). None of them touches the RTSP connection.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "airplay_tool/alac_frame.h"
#include "airplay_tool/packet_backlog.h"
#include "airplay_tool/pcm_input.h"
#include "airplay_tool/send_plan.h"
#include "airplay_tool/stream_timeline.h"
#include "airplay_tool/transport_header.h"

namespace vt::airplay_tool {

class StatusWriter;

struct StreamStart {
    int64_t requestedUnixMs = 0;  // 0: as soon as the receiver allows
    int minLeadMs = 0;            // the shortest lead the receiver takes
    int inputFd = 0;
    PcmFormat format;
};

// An audio packet as it may go out: header, ALAC frame, and what AirPlay 2
// appends (the tag and the nonce's tail).
inline constexpr size_t kMaxAudioPacketBytes = kRtpHeaderBytes + kAlacFrameBytes + 24;

class RtpStreamer {
  public:
    // Seals an audio packet in place: its header and `payloadBytes` of
    // payload are written, and it has room for kMaxAudioPacketBytes.
    // Returns its length on the wire.
    using PacketSealer = std::function<size_t(std::span<uint8_t> packet, size_t payloadBytes)>;
    // The sync packet for this moment of the time line.
    using SyncMaker = std::function<std::vector<uint8_t>(const StreamTimeline& timeline,
                                                         int64_t nowNs, bool first)>;
    struct Framing {
        PacketSealer seal;  // empty: the payload goes as it is
        SyncMaker sync;     // empty: AirPlay 1's, on the NTP clock
        // AirPlay 1 receivers ignore sync packets until they have had a
        // timing answer; the first audio waits (a while) for one.
        bool waitsForTiming = true;
        std::optional<uint32_t> ssrc;  // none: a random one
        // `REANCHOR` lines when late audio moves the time line forward.
        bool reportsReanchor = false;
    };

    RtpStreamer(StatusWriter& status, std::string localIP, Framing framing);
    ~RtpStreamer();

    // Binds the control and timing sockets; false and `error` on failure.
    bool open(std::string& error);
    int controlPort() const { return controlPort_; }
    int timingPort() const { return timingPort_; }
    uint16_t firstSeq() const { return firstSeq_; }
    uint32_t firstTimestamp() const { return firstTimestamp_; }

    // Starts answering timing requests, before RECORD makes the receiver ask.
    void startResponder();
    // Where the receiver wants our packets (from the SETUP answer).
    void setReceiver(const std::string& receiverIP, ReceiverPorts ports);
    int timingExchanges() const { return timingExchanges_.load(); }

    // Reads standard input and sends. `started` is printed on the first data.
    void begin(const StreamStart& start);
    void stop();
    // Drops what is queued and not yet sent, and gives the RTP time and
    // sequence number the receiver is to drop everything before. The time line
    // runs on: audio that comes later is heard as it would have been. With
    // `pause`, input is read and dropped until `resume`, and the slots go out
    // as silence meanwhile; after it, input is heard its lead after it came.
    struct FlushPoint {
        uint16_t seq = 0;
        uint32_t rtptime = 0;
    };
    FlushPoint flush(bool pause);
    void resume();
    // Milliseconds of the stream heard since START, across flushes.
    int64_t elapsedMs() const;

    // The RTP time being heard now, for metadata stamps.
    uint32_t rtpNow() const;
    bool inputEnded() const { return inputEnded_.load(); }
    // A fatal problem seen by a thread (sending failed: the receiver is gone).
    std::optional<std::string> failure() const;

  private:
    struct Packet {
        int64_t frame = 0;  // index of its first frame on the current time line
        std::array<uint8_t, kAlacFrameBytes> payload{};
    };

    void respond();
    void readInput(StreamStart start);
    void sendPackets();
    void sendSync(const StreamTimeline& timeline, bool first);
    // Under the lock: the time line for the first audio, come at `arrivalNs`.
    void beginTimeLine(const StreamStart& start, int64_t arrivalNs);
    int64_t heardFramesLocked(int64_t nowNs) const;
    void fail(const std::string& why);
    bool waitForTiming();

    StatusWriter& status_;
    std::string localIP_;
    Framing framing_;
    int controlFd_ = -1;
    int timingFd_ = -1;
    int audioFd_ = -1;
    int wakeFd_ = -1;  // eventfd that ends the responder's poll
    int controlPort_ = 0;
    int timingPort_ = 0;
    uint16_t firstSeq_ = 0;
    uint32_t firstTimestamp_ = 0;
    uint32_t ssrc_ = 0;
    ReceiverPorts ports_;
    std::string receiverIP_;

    PacketBacklog backlog_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> inputEnded_{false};
    std::atomic<int> timingExchanges_{0};

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Packet> queue_;
    bool readerDone_ = false;
    // The time line and what of it went out; none before the first audio.
    std::optional<SendPlan> plan_;
    uint64_t epoch_ = 0;            // counts flushes: the receiver is told afresh
    bool paused_ = false;           // input is read and dropped
    uint16_t nextSeq_ = 0;          // the sequence number of the next packet
    int64_t pausedAtFrame_ = 0;     // the slot a pause began at
    int64_t skippedFrames_ = 0;     // slots passed over by pauses, not heard
    int64_t reanchoredFrames_ = 0;  // the time line's moves since START
    std::optional<std::string> failure_;

    std::thread responder_;
    std::thread reader_;
    std::thread sender_;
};

}  // namespace vt::airplay_tool
