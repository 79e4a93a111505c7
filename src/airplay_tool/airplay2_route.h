// AirPlay 2, as far as this build goes: GET /info, then pairing on the same
// connection (pair-verify with the credentials of --auth, else transient
// pairing with the receiver's code "3939" or --password), after which the
// connection is encrypted. The session itself (SETUP with PTP timing,
// RECORD, the stream) is not spoken yet: the route then says so and ends.
// The compatible route is the same without --auth.
#pragma once

#include <memory>

#include "airplay_tool/pairing_exchange.h"
#include "airplay_tool/receiver_info.h"
#include "airplay_tool/route.h"
#include "airplay_tool/rtsp_client.h"

namespace vt::airplay_tool {

class AirPlay2Route : public Route {
  public:
    AirPlay2Route(const ToolOptions& options, StatusWriter& status);

    bool connect() override;
    Outcome handle(const Command& command) override;
    Outcome poll() override;
    int watchFd() const override;
    void close() override;

  private:
    // Pairs on the open connection; an error line and false when it cannot.
    bool pair();
    void reportPairingError(const PairingError& error, bool withCredentials);

    ToolOptions options_;
    StatusWriter& status_;
    std::unique_ptr<RtspClient> rtsp_;
    std::optional<ReceiverInfo> info_;
    bool closed_ = false;
};

}  // namespace vt::airplay_tool
