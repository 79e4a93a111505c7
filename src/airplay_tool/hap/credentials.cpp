#include "airplay_tool/hap/credentials.h"

#include "airplay_tool/hap/hap_crypto.h"

namespace vt::hap {

std::string PairingCredentials::toHex() const {
    return hap::toHex(concat({&controllerSeed, &controllerPublicKey, &accessoryPublicKey}));
}

std::optional<PairingCredentials> PairingCredentials::fromHex(std::string_view text) {
    if (text.size() != kCredentialsHexDigits) return std::nullopt;
    auto bytes = hap::fromHex(text);
    if (!bytes) return std::nullopt;
    const auto part = [&](size_t index) {
        const auto from = bytes->begin() + static_cast<std::ptrdiff_t>(index * kCurve25519KeyBytes);
        return Bytes(from, from + static_cast<std::ptrdiff_t>(kCurve25519KeyBytes));
    };
    PairingCredentials c{part(0), part(1), part(2)};
    if (ed25519PublicKey(c.controllerSeed) != c.controllerPublicKey) return std::nullopt;
    return c;
}

ControllerIdentity newControllerIdentity(std::string id) {
    KeyPair pair = ed25519Generate();
    return {std::move(id), std::move(pair.privateKey), std::move(pair.publicKey)};
}

}  // namespace vt::hap
