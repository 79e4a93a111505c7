// AirPlay 1 (RAOP): one RTSP connection (OPTIONS, ANNOUNCE with the SDP,
// SETUP, RECORD, SET_PARAMETER, TEARDOWN) and the UDP streamer beside it.
#pragma once

#include <memory>
#include <string>

#include "airplay_tool/raop_crypto.h"
#include "airplay_tool/route.h"
#include "airplay_tool/rtp_streamer.h"
#include "airplay_tool/rtsp_client.h"
#include "airplay_tool/track_metadata.h"

namespace vt::airplay_tool {

// Whether to encrypt: --raw and --encrypt decide, else the receiver's `et`
// (RSA is 1), else yes, since AirPort Express receivers take nothing else.
bool wantsEncryption(const ToolOptions& options);
// Whether OPTIONS carries an Apple-Challenge: to an AirPort (by its `am`)
// with an encrypted stream, as those check who sends to them.
bool sendsAppleChallenge(const ToolOptions& options);
// --volume 0-100 in the receiver's dB: -30 to 0, and 0 is mute (-144).
double volumeToDb(int volume);
// A command's VOLUME= as 0-100, or nothing when it is not a number.
std::optional<int> parseVolume(const std::string& text);

class RaopRoute : public Route {
  public:
    RaopRoute(const ToolOptions& options, StatusWriter& status);
    ~RaopRoute() override;

    bool connect() override;
    Outcome handle(const Command& command) override;
    Outcome poll() override;
    int watchFd() const override;
    void close() override;

  private:
    RtspRequest makeRequest(const std::string& method) const;
    // The answer to a setup step, or an error line and nothing.
    std::optional<RtspResponse> setupStep(const RtspRequest& request);
    bool setVolume(int volume);
    void sendMetadata(const Command& command);
    bool setParameter(const std::string& contentType, const std::string& body, bool stamped);
    // FLUSH, PAUSE and STANDBY (both keep the session, silent), PLAY.
    Outcome flush(bool pause);
    Outcome play();

    ToolOptions options_;
    StatusWriter& status_;
    std::unique_ptr<RtspClient> rtsp_;
    std::unique_ptr<PacketEncryptor> encryptor_;
    std::unique_ptr<RtpStreamer> streamer_;
    MetadataSupport metadata_;
    std::string url_;
    std::string session_;
    int leadMs_ = 0;
    bool started_ = false;
    bool paused_ = false;
    bool closed_ = false;
};

}  // namespace vt::airplay_tool
