#include "airplay_tool/hap/pairing_reply.h"

#include "airplay_tool/hap/hap_crypto.h"

namespace vt::hap {

namespace {

std::string refusalText(uint8_t error) {
    switch (error) {
        case tlv_error::authentication:
            return "the receiver did not accept our proof";
        case tlv_error::backoff:
            return "the receiver asks to wait before pairing again";
        case tlv_error::maxPeers:
            return "the receiver cannot take another paired computer";
        case tlv_error::maxTries:
            return "the receiver refuses after too many wrong codes";
        case tlv_error::unavailable:
            return "the receiver is already paired and takes no new pairing";
        case tlv_error::busy:
            return "the receiver is busy pairing with someone else";
        default:
            return "the receiver refused pairing (error " + std::to_string(error) + ")";
    }
}

}  // namespace

PairingResult<Tlv8> readReply(const Bytes& body, uint8_t expectedState, bool codeChecked) {
    auto tlv = Tlv8::decode(body);
    if (!tlv) return malformed("unreadable pairing answer");
    if (auto error = tlv->byte(tlv::error)) {
        if (*error == tlv_error::authentication && codeChecked)
            return PairingFailure{PairingFailure::Kind::wrongCode, "wrong PIN"};
        return PairingFailure{PairingFailure::Kind::refused, refusalText(*error)};
    }
    if (tlv->byte(tlv::state) != expectedState)
        return malformed("pairing answer for another step than M" + std::to_string(expectedState));
    return *tlv;
}

PairingResult<Tlv8> openSubTlv(const Tlv8& reply, const Bytes& key, const char* nonceLabel) {
    const Bytes* sealed = reply.find(tlv::encryptedData);
    if (!sealed) return malformed("pairing answer without its encrypted part");
    auto plain = chachaOpen(key, labelNonce(nonceLabel), {}, *sealed);
    if (!plain) return notGenuine("pairing answer that does not decrypt");
    auto inner = Tlv8::decode(*plain);
    if (!inner) return malformed("unreadable encrypted pairing answer");
    return *inner;
}

}  // namespace vt::hap
