// Pairing over the receiver's own connection: each TLV8 message is the body
// of a POST to /pair-setup or /pair-verify, and the answer's body is the
// next message. A whole pair-setup or pair-verify is one call here.
#pragma once

#include <string>

#include "airplay_tool/hap/credentials.h"
#include "airplay_tool/hap/pair_setup.h"
#include "airplay_tool/rtsp_client.h"

namespace vt::airplay_tool {

struct PairingError {
    hap::PairingFailure failure;
    int http = 0;  // the HTTP status of a refused request, 0 otherwise
};

template <class T>
struct PairingOutcome {
    std::optional<T> value;
    PairingError error;
};

class PairingExchange {
  public:
    PairingExchange(RtspClient& rtsp, int timeoutMs) : rtsp_(rtsp), timeoutMs_(timeoutMs) {}

    // POST /pair-pin-start: the receiver shows its code. A 404 is no error:
    // a receiver with the code printed on it has nothing to show.
    std::optional<PairingError> startPinDisplay();
    // Transient pairing with the receiver's code: the SRP session key.
    PairingOutcome<hap::Bytes> pairTransient(const std::string& code);
    // PIN pairing under a new identity of ours: the credentials to keep.
    PairingOutcome<hap::PairingCredentials> pairWithPin(const std::string& code,
                                                        const hap::ControllerIdentity& identity);
    // Pair-verify with kept credentials: the shared secret of this session.
    PairingOutcome<hap::Bytes> verify(const hap::PairingCredentials& credentials,
                                      const std::string& controllerID);

  private:
    struct Answer {
        std::optional<hap::Bytes> body;
        PairingError error;
    };
    Answer post(const std::string& path, const hap::Bytes& body, bool transient);

    RtspClient& rtsp_;
    int timeoutMs_;
};

}  // namespace vt::airplay_tool
