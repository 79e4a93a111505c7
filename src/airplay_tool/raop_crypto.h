// AirPlay 1 audio encryption, all from OpenSSL: a fresh AES-128 key and IV per
// session, the key wrapped with RSA-OAEP under the AirPort Express public key
// (a protocol constant every such receiver holds the private half of), and
// each packet's payload encrypted in CBC from the IV, the tail under one
// block left clear.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace vt::airplay_tool {

inline constexpr size_t kAesKeyBytes = 16;
using AesKey = std::array<uint8_t, kAesKeyBytes>;

struct SessionKeys {
    AesKey key{};
    AesKey iv{};
};

// Random key and IV from OpenSSL's generator; nothing if it fails.
std::optional<SessionKeys> makeSessionKeys();

// The key encrypted for the receiver (256 bytes); nothing on failure.
std::optional<std::vector<uint8_t>> wrapKeyForReceiver(const AesKey& key);

class PacketEncryptor {
  public:
    PacketEncryptor(const AesKey& key, const AesKey& iv);
    ~PacketEncryptor();
    PacketEncryptor(const PacketEncryptor&) = delete;
    PacketEncryptor& operator=(const PacketEncryptor&) = delete;

    // Encrypts the whole 16-byte blocks of `payload` in place; false on an
    // OpenSSL failure.
    bool encrypt(std::span<uint8_t> payload);

  private:
    AesKey key_;
    AesKey iv_;
    struct Context;
    std::unique_ptr<Context> context_;
};

}  // namespace vt::airplay_tool
