// TLV8, the body of every pairing message: a type byte, a length byte and up
// to 255 bytes of value. A longer value is written as several items of the
// same type in a row, and those are joined again on reading.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "airplay_tool/hap/bytes.h"

namespace vt::hap {

namespace tlv {
inline constexpr uint8_t method = 0x00;
inline constexpr uint8_t identifier = 0x01;
inline constexpr uint8_t salt = 0x02;
inline constexpr uint8_t publicKey = 0x03;
inline constexpr uint8_t proof = 0x04;
inline constexpr uint8_t encryptedData = 0x05;
inline constexpr uint8_t state = 0x06;
inline constexpr uint8_t error = 0x07;
inline constexpr uint8_t signature = 0x0a;
inline constexpr uint8_t flags = 0x13;
}  // namespace tlv

// The error values an accessory puts in a `tlv::error` item.
namespace tlv_error {
inline constexpr uint8_t authentication = 0x02;  // wrong setup code, or a bad proof
inline constexpr uint8_t backoff = 0x03;
inline constexpr uint8_t maxPeers = 0x04;
inline constexpr uint8_t maxTries = 0x05;
inline constexpr uint8_t unavailable = 0x06;
inline constexpr uint8_t busy = 0x07;
}  // namespace tlv_error

// No pairing message comes near this; anything larger is refused unread.
inline constexpr size_t kMaxTlv8Bytes = 64 * 1024;

class Tlv8 {
  public:
    struct Item {
        uint8_t type;
        Bytes value;
    };

    Tlv8& add(uint8_t type, Bytes value);
    Tlv8& add(uint8_t type, uint8_t value) { return add(type, Bytes{value}); }

    // The first item of this type, if any.
    const Bytes* find(uint8_t type) const;
    // A one-byte item's value, if there is exactly such an item.
    std::optional<uint8_t> byte(uint8_t type) const;
    const std::vector<Item>& items() const { return items_; }

    Bytes encode() const;
    // Nothing for a truncated item or an input over kMaxTlv8Bytes. An item
    // of 255 bytes goes on in a next item of the same type, if one follows.
    static std::optional<Tlv8> decode(const uint8_t* data, size_t size);
    static std::optional<Tlv8> decode(const Bytes& data) {
        return decode(data.data(), data.size());
    }

  private:
    std::vector<Item> items_;
};

}  // namespace vt::hap
