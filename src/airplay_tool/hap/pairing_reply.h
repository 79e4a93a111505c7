// The accessory's answer to one pairing message, read the same way for
// pair-setup and pair-verify.
#pragma once

#include "airplay_tool/hap/pairing_result.h"
#include "airplay_tool/hap/tlv8.h"

namespace vt::hap {

// The reply's items, or why not: unreadable, another state than expected,
// or an error item. An authentication error in pair-setup's M4 means the
// code was wrong; every other error item is a refusal.
PairingResult<Tlv8> readReply(const Bytes& body, uint8_t expectedState, bool codeChecked = false);

// The items inside an encrypted-data item, opened with this key and nonce label.
PairingResult<Tlv8> openSubTlv(const Tlv8& reply, const Bytes& key, const char* nonceLabel);

// A required item of the reply, or nothing.
inline const Bytes* item(const Tlv8& tlv, uint8_t type, size_t exactSize = 0) {
    const Bytes* value = tlv.find(type);
    if (!value || (exactSize != 0 && value->size() != exactSize)) return nullptr;
    return value;
}

}  // namespace vt::hap
