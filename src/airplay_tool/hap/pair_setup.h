// The controller's side of pair-setup, one message at a time; the caller
// carries them. Transient pairing (M1-M4 with the transient flag) ends with
// the SRP session key, which then keys the session. PIN pairing goes on to
// M5/M6, where both sides sign their long-term keys, and ends with the
// credentials to keep.
#pragma once

#include <string>

#include "airplay_tool/hap/credentials.h"
#include "airplay_tool/hap/pairing_result.h"

namespace vt::hap {

struct AccessoryIdentity {
    std::string id;
    Bytes publicKey;
};

class PairSetupClient {
  public:
    // Transient, with the code the receiver expects ("3939" or its password).
    explicit PairSetupClient(std::string setupCode);
    // PIN pairing, under a long-term identity of ours.
    PairSetupClient(std::string setupCode, ControllerIdentity identity);

    Bytes m1() const;
    // From the accessory's salt and B: our A and proof.
    PairingResult<Bytes> m3(const Bytes& m2);
    // Checks the accessory's proof. Transient pairing is done here (and
    // the result is empty); PIN pairing gets the signed M5.
    PairingResult<Bytes> m5(const Bytes& m4);
    // Checks the accessory's signed identity in M6.
    PairingResult<AccessoryIdentity> finish(const Bytes& m6);

    bool isTransient() const { return !identity_; }
    // K, once M4 has been checked.
    const Bytes& sessionKey() const { return sessionKey_; }
    // For tests only: fixes SRP's private exponent.
    void setPrivateKeyForTesting(Bytes key) { privateKey_ = std::move(key); }

  private:
    std::string code_;
    std::optional<ControllerIdentity> identity_;
    Bytes privateKey_;
    Bytes expectedProof_;
    Bytes sessionKey_;
    Bytes encryptionKey_;
    bool proven_ = false;
};

}  // namespace vt::hap
