// The controller's half of SRP-6a as pairing uses it: RFC 5054's 3072-bit
// group with g = 5, SHA-512 for every hash, the user "Pair-Setup" and the
// setup code as password. Numbers on the wire are padded to the group's
// 384 bytes, and so are A, B and S wherever they are hashed.
#pragma once

#include <optional>
#include <string_view>

#include "airplay_tool/hap/bytes.h"

namespace vt::hap {

inline constexpr size_t kSrpGroupBytes = 384;
inline constexpr size_t kSrpPrivateKeyBytes = 32;
inline constexpr std::string_view kPairSetupUser = "Pair-Setup";

struct SrpClientSession {
    Bytes publicKey;            // A, to send in M3
    Bytes proof;                // M1, to send in M3
    Bytes expectedServerProof;  // M2, what M4 must hold
    Bytes sessionKey;           // K = H(S), 64 bytes
};

// Everything the client derives from the accessory's salt and B, with the
// private exponent `a` (random bytes; fixed ones only in tests). Nothing
// when B is 0 modulo N or the scrambler u is 0, the two answers that would
// let a fake accessory fix the session key.
std::optional<SrpClientSession> srpClientSession(std::string_view user, std::string_view password,
                                                 const Bytes& salt, const Bytes& serverPublicKey,
                                                 const Bytes& privateKey);

}  // namespace vt::hap
