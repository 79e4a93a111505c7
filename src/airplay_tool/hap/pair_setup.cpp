#include "airplay_tool/hap/pair_setup.h"

#include "airplay_tool/hap/hap_crypto.h"
#include "airplay_tool/hap/pairing_reply.h"
#include "airplay_tool/hap/srp_client.h"

namespace vt::hap {

namespace {

constexpr uint8_t kMethodPairSetup = 0;
constexpr uint8_t kFlagTransient = 0x10;
constexpr size_t kMaxSaltBytes = 64;

}  // namespace

PairSetupClient::PairSetupClient(std::string setupCode)
    : code_(std::move(setupCode)), privateKey_(randomBytes(kSrpPrivateKeyBytes)) {}

PairSetupClient::PairSetupClient(std::string setupCode, ControllerIdentity identity)
    : code_(std::move(setupCode)),
      identity_(std::move(identity)),
      privateKey_(randomBytes(kSrpPrivateKeyBytes)) {}

Bytes PairSetupClient::m1() const {
    Tlv8 m;
    m.add(tlv::state, 1).add(tlv::method, kMethodPairSetup);
    if (isTransient()) m.add(tlv::flags, kFlagTransient);
    return m.encode();
}

PairingResult<Bytes> PairSetupClient::m3(const Bytes& m2) {
    auto reply = readReply(m2, 2);
    if (!reply) return reply.failure();
    const Bytes* salt = item(*reply, tlv::salt);
    const Bytes* serverKey = item(*reply, tlv::publicKey);
    if (!salt || salt->empty() || salt->size() > kMaxSaltBytes || !serverKey)
        return malformed("pair-setup M2 without salt or key");
    auto srp = srpClientSession(kPairSetupUser, code_, *salt, *serverKey, privateKey_);
    if (!srp) return notGenuine("pair-setup M2 with an unusable key");
    expectedProof_ = srp->expectedServerProof;
    sessionKey_ = srp->sessionKey;
    Tlv8 m;
    m.add(tlv::state, 3).add(tlv::publicKey, srp->publicKey).add(tlv::proof, srp->proof);
    return m.encode();
}

PairingResult<Bytes> PairSetupClient::m5(const Bytes& m4) {
    auto reply = readReply(m4, 4, true);
    if (!reply) return reply.failure();
    const Bytes* proof = item(*reply, tlv::proof);
    if (!proof || expectedProof_.empty() || !constantTimeEqual(*proof, expectedProof_))
        return notGenuine("the receiver's SRP proof is wrong");
    proven_ = true;
    if (isTransient()) return Bytes{};

    encryptionKey_ = hkdfSha512(sessionKey_, "Pair-Setup-Encrypt-Salt", "Pair-Setup-Encrypt-Info");
    const Bytes signKey = hkdfSha512(sessionKey_, "Pair-Setup-Controller-Sign-Salt",
                                     "Pair-Setup-Controller-Sign-Info");
    const Bytes id = bytesOf(identity_->id);
    auto signature = ed25519Sign(identity_->seed, concat({&signKey, &id, &identity_->publicKey}));
    if (!signature) return malformed("our pairing identity is unusable");
    Tlv8 inner;
    inner.add(tlv::identifier, id)
        .add(tlv::publicKey, identity_->publicKey)
        .add(tlv::signature, *signature);
    Tlv8 m;
    m.add(tlv::state, 5)
        .add(tlv::encryptedData,
             chachaSeal(encryptionKey_, labelNonce("PS-Msg05"), {}, inner.encode()));
    return m.encode();
}

PairingResult<AccessoryIdentity> PairSetupClient::finish(const Bytes& m6) {
    if (!proven_ || isTransient()) return malformed("pair-setup M6 out of turn");
    auto reply = readReply(m6, 6);
    if (!reply) return reply.failure();
    auto inner = openSubTlv(*reply, encryptionKey_, "PS-Msg06");
    if (!inner) return inner.failure();
    const Bytes* id = item(*inner, tlv::identifier);
    const Bytes* key = item(*inner, tlv::publicKey, kCurve25519KeyBytes);
    const Bytes* signature = item(*inner, tlv::signature, kEd25519SignatureBytes);
    if (!id || !key || !signature) return malformed("pair-setup M6 without identity");
    const Bytes signKey =
        hkdfSha512(sessionKey_, "Pair-Setup-Accessory-Sign-Salt", "Pair-Setup-Accessory-Sign-Info");
    if (!ed25519Verify(*key, concat({&signKey, id, key}), *signature))
        return notGenuine("the receiver's pairing signature is wrong");
    return AccessoryIdentity{std::string(id->begin(), id->end()), *key};
}

}  // namespace vt::hap
