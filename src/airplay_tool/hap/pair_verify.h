// The controller's side of pair-verify: with the credentials of an earlier
// PIN pairing, both sides prove their long-term identities over a fresh
// X25519 exchange, whose result keys the session.
#pragma once

#include <string>

#include "airplay_tool/hap/credentials.h"
#include "airplay_tool/hap/hap_crypto.h"
#include "airplay_tool/hap/pairing_result.h"

namespace vt::hap {

class PairVerifyClient {
  public:
    // `controllerID` must be the identifier used at pair-setup.
    PairVerifyClient(PairingCredentials credentials, std::string controllerID);

    Bytes m1() const;
    // Checks the accessory's signature over both ephemeral keys; our M3.
    PairingResult<Bytes> m3(const Bytes& m2);
    // The shared X25519 secret once the accessory accepted M3.
    PairingResult<Bytes> finish(const Bytes& m4);

  private:
    PairingCredentials credentials_;
    std::string controllerID_;
    KeyPair ephemeral_;
    Bytes shared_;
};

}  // namespace vt::hap
