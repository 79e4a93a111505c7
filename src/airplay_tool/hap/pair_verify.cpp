#include "airplay_tool/hap/pair_verify.h"

#include "airplay_tool/hap/pairing_reply.h"

namespace vt::hap {

PairVerifyClient::PairVerifyClient(PairingCredentials credentials, std::string controllerID)
    : credentials_(std::move(credentials)),
      controllerID_(std::move(controllerID)),
      ephemeral_(x25519Generate()) {}

Bytes PairVerifyClient::m1() const {
    Tlv8 m;
    m.add(tlv::state, 1).add(tlv::publicKey, ephemeral_.publicKey);
    return m.encode();
}

PairingResult<Bytes> PairVerifyClient::m3(const Bytes& m2) {
    auto reply = readReply(m2, 2);
    if (!reply) return reply.failure();
    const Bytes* theirs = item(*reply, tlv::publicKey, kCurve25519KeyBytes);
    if (!theirs) return malformed("pair-verify M2 without a key");
    auto shared = x25519Shared(ephemeral_.privateKey, *theirs);
    if (!shared) return notGenuine("pair-verify M2 with an unusable key");
    const Bytes key = hkdfSha512(*shared, "Pair-Verify-Encrypt-Salt", "Pair-Verify-Encrypt-Info");
    auto inner = openSubTlv(*reply, key, "PV-Msg02");
    if (!inner) return inner.failure();
    const Bytes* id = item(*inner, tlv::identifier);
    const Bytes* signature = item(*inner, tlv::signature, kEd25519SignatureBytes);
    if (!id || !signature) return malformed("pair-verify M2 without identity");
    if (!ed25519Verify(credentials_.accessoryPublicKey, concat({theirs, id, &ephemeral_.publicKey}),
                       *signature))
        return notGenuine("the receiver is not the one we paired with");

    const Bytes ourID = bytesOf(controllerID_);
    auto ourSignature =
        ed25519Sign(credentials_.controllerSeed, concat({&ephemeral_.publicKey, &ourID, theirs}));
    if (!ourSignature) return malformed("our pairing identity is unusable");
    Tlv8 mine;
    mine.add(tlv::identifier, ourID).add(tlv::signature, *ourSignature);
    Tlv8 m;
    m.add(tlv::state, 3)
        .add(tlv::encryptedData, chachaSeal(key, labelNonce("PV-Msg03"), {}, mine.encode()));
    shared_ = *shared;
    return m.encode();
}

PairingResult<Bytes> PairVerifyClient::finish(const Bytes& m4) {
    if (shared_.empty()) return malformed("pair-verify M4 out of turn");
    auto reply = readReply(m4, 4);
    if (!reply) {
        // An authentication error here means the receiver no longer knows us.
        return reply.failure();
    }
    return shared_;
}

}  // namespace vt::hap
