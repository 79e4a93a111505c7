// The accessory's half of SRP-6a as AirPlay 2's transient pairing uses it
// (RFC 5054's 3072-bit group, g = 5, SHA-512, user "Pair-Setup"), written
// from the protocol description for the test receiver: the sender's side is
// checked against it, so it shares nothing with the sender's but OpenSSL.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vt::airplay_test {

using Bytes = std::vector<uint8_t>;

class SrpServer {
  public:
    // A fresh salt and private exponent for this code.
    explicit SrpServer(const std::string& code);
    ~SrpServer();
    SrpServer(const SrpServer&) = delete;
    SrpServer& operator=(const SrpServer&) = delete;

    const Bytes& salt() const { return salt_; }
    const Bytes& publicKey() const { return B_; }  // 384 bytes
    // Checks the client's A and proof M1: its session key K and our proof
    // M2, or nothing when the proof is wrong (a wrong code).
    struct Verified {
        Bytes sessionKey;
        Bytes serverProof;
    };
    std::optional<Verified> verify(const Bytes& clientPublicKey, const Bytes& clientProof);

  private:
    struct Numbers;
    Numbers* n_;
    Bytes salt_;
    Bytes B_;
};

}  // namespace vt::airplay_test
