// What a PIN pairing leaves behind, kept by the app and handed back to the
// tool as 192 hex digits: our Ed25519 seed and public key, then the
// receiver's long-term public key. The identifier we paired under is not
// in it; the app passes it again as the DACP id.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "airplay_tool/hap/bytes.h"

namespace vt::hap {

inline constexpr size_t kCredentialsHexDigits = 192;

struct ControllerIdentity {
    std::string id;
    Bytes seed;       // Ed25519 private seed
    Bytes publicKey;  // Ed25519 public key
};

struct PairingCredentials {
    Bytes controllerSeed;
    Bytes controllerPublicKey;
    Bytes accessoryPublicKey;

    std::string toHex() const;
    // Nothing unless exactly 192 hex digits whose seed gives that public key.
    static std::optional<PairingCredentials> fromHex(std::string_view text);
};

// A fresh Ed25519 identity under this identifier.
ControllerIdentity newControllerIdentity(std::string id);

}  // namespace vt::hap
