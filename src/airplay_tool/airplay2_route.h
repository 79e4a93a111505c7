// AirPlay 2 with realtime audio: GET /info, then pairing on the same
// connection (pair-verify with the credentials of --auth, else transient
// pairing with the receiver's code "3939" or --password), after which the
// connection is encrypted. Then the session: SETUP with our PTP clock (or
// NTP when we have none), the event connection the receiver names, RECORD,
// SETPEERS, the stream SETUP of ALAC at 44.1 kHz with a fresh audio key,
// the volume, and audio sealed with that key on the streamer AirPlay 1 uses.
// The compatible route is the same without --auth.
#pragma once

#include <chrono>
#include <memory>

#include "airplay_tool/event_requests.h"
#include "airplay_tool/pairing_exchange.h"
#include "airplay_tool/ptp/session_clock.h"
#include "airplay_tool/receiver_info.h"
#include "airplay_tool/route.h"
#include "airplay_tool/rtp_streamer.h"
#include "airplay_tool/rtsp_client.h"

namespace vt::airplay_tool {

// The session SETUP's `deviceID`: a DACP id's first twelve hex digits as a MAC.
std::string deviceIdFromDacp(const std::string& dacpID);

class AirPlay2Route : public Route {
  public:
    ~AirPlay2Route() override;
    AirPlay2Route(const ToolOptions& options, StatusWriter& status);

    bool connect() override;
    Outcome handle(const Command& command) override;
    Outcome poll() override;
    int watchFd() const override;
    int eventFd() const override;
    void close() override;

  private:
    // Pairs on the open connection; an error line and false when it cannot.
    bool pair();
    void reportPairingError(const PairingError& error, bool withCredentials);
    bool setUpSession();
    RtspRequest makeRequest(const std::string& method, const std::string& body = {}) const;
    // The answer to a session step when it is 200, else an error line and nothing.
    std::optional<RtspResponse> sessionStep(const RtspRequest& request);
    RtpStreamer::Framing framing() const;
    bool setVolume(int volume);
    void sendMetadata(const Command& command);
    Outcome flush(bool pause);
    // Answers what the receiver asked on the event connection; false once
    // that connection is closed.
    bool answerEvents();

    ToolOptions options_;
    StatusWriter& status_;
    std::unique_ptr<RtspClient> rtsp_;
    std::unique_ptr<RtspClient> events_;
    EventRequestReader eventRequests_;
    std::optional<ReceiverInfo> info_;
    hap::Bytes secret_;
    hap::Bytes streamKey_;
    std::unique_ptr<ptp::SessionClock> clock_;
    std::unique_ptr<RtpStreamer> streamer_;
    std::string url_;
    std::chrono::steady_clock::time_point lastFeedback_;
    bool started_ = false;
    bool paused_ = false;
    bool closed_ = false;
};

}  // namespace vt::airplay_tool
