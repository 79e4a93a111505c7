// A small AirPlay 2 receiver for tests, on loopback, as strict as the public
// descriptions of the protocol make a receiver: it answers GET /info, pairs
// transiently (its own SRP server), then takes only encrypted requests,
// checks the session SETUP, RECORD, SETPEERS and stream SETUP plists and
// their order, takes the ChaCha20-Poly1305 sealed RTP audio of a realtime
// ALAC stream, decodes it, and places every frame in time by the sync
// packets against the PTP clock. It asks for one packet again (it "loses"
// the twentieth) so the sender's backlog is exercised, and it asks the
// sender a question on the event connection, as receivers do.
//
// PTP: it speaks to the sender's clock (Delay_Req to port 319) so that the
// sender sees a receiver on the clock, but it reads no PTP time itself: on
// the one host of a test the sender's clock, which leads, is CLOCK_REALTIME.
// NTP (a session SETUP without PTP): it asks the sender's time as AirPlay 1
// receivers do, so that the sender's sync packets go out, and reads them.
//
// What it shares with the sender: TLV8, the channel's frame format and
// HKDF/ChaCha20-Poly1305 calls (thin OpenSSL wrappers) from hap/, and the PTP
// message encoder. Everything a receiver decides is its own.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "airplay_tool/hap/bytes.h"

namespace vt::airplay_test {

struct PlayedAudio {
    uint32_t firstRtp = 0;
    // Interleaved stereo from the first frame on; silence where nothing came.
    std::vector<int16_t> samples;
    size_t missingPackets = 0;
    // When the first frame is heard, in PTP (here: Unix) nanoseconds.
    int64_t firstFrameNs = 0;
};

struct ReceiverState;

class Ap2TestReceiver {
  public:
    // Listens on `address` (loopback, or a namespace's own), on `port` or
    // one the system picks; one session at a time, one after another.
    explicit Ap2TestReceiver(std::string address = "127.0.0.1", int port = 0);
    ~Ap2TestReceiver();
    Ap2TestReceiver(const Ap2TestReceiver&) = delete;
    Ap2TestReceiver& operator=(const Ap2TestReceiver&) = delete;

    int port() const { return port_; }
    // As if a PIN pairing had been made with this controller: pair-verify
    // with its identity is taken from now on. Our long-term key for it:
    hap::Bytes pairWith(const std::string& controllerID, const hap::Bytes& controllerPublicKey);
    // The loudest sample that has come, of any session.
    int peakLevel() const;
    size_t framesReceived() const;
    // What the sender did against the protocol, a line each.
    std::vector<std::string> violations() const;
    // The requests in order, as "METHOD uri".
    std::vector<std::string> requests() const;
    std::optional<PlayedAudio> played() const;
    std::optional<double> volumeDb() const;
    // The last DMAP listing item of the track, as it came.
    std::string trackText() const;
    int resentPackets() const;
    int syncPackets() const;
    bool tornDown() const;
    // The last FLUSH's RTP time, from which audio is new.
    std::optional<uint32_t> flushedFromRtp() const;
    // The sender answered our request on the event connection.
    bool eventAnswered() const;
    // The largest distance, in nanoseconds, of a sync packet's time from the
    // line the first one drew.
    int64_t syncDeviationNs() const;

  private:
    void serveControl();
    void serveConnection(int fd);
    void serveMedia();

    std::string address_;
    int listenFd_ = -1;
    int stopFd_ = -1;
    int port_ = 0;
    std::unique_ptr<ReceiverState> state_;
    mutable std::mutex mutex_;
    std::thread control_;
    std::thread media_;
};

}  // namespace vt::airplay_test
