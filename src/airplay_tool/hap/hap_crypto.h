// The primitives pairing and the encrypted channel are built of, each a thin
// call into OpenSSL's EVP interface with the sizes the protocol fixes.
#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <optional>
#include <string_view>

#include "airplay_tool/hap/bytes.h"

namespace vt::hap {

inline constexpr size_t kSha512Bytes = 64;
inline constexpr size_t kCurve25519KeyBytes = 32;
inline constexpr size_t kEd25519SignatureBytes = 64;
inline constexpr size_t kChachaKeyBytes = 32;
inline constexpr size_t kChachaNonceBytes = 12;
inline constexpr size_t kChachaTagBytes = 16;

Bytes randomBytes(size_t count);
bool constantTimeEqual(const Bytes& a, const Bytes& b);

// SHA-512 over parts fed one after another.
class Sha512 {
  public:
    Sha512();
    ~Sha512();
    Sha512(const Sha512&) = delete;
    Sha512& operator=(const Sha512&) = delete;
    Sha512& update(const uint8_t* data, size_t size);
    Sha512& update(const Bytes& data) { return update(data.data(), data.size()); }
    Sha512& update(std::string_view text);
    Bytes finish();

  private:
    EVP_MD_CTX* ctx_;
};
Bytes sha512(const Bytes& data);

// HKDF (extract and expand) with any digest; pairing always uses SHA-512.
Bytes hkdf(const EVP_MD* digest, const Bytes& secret, const Bytes& salt, const Bytes& info,
           size_t length);
Bytes hkdfSha512(const Bytes& secret, std::string_view salt, std::string_view info,
                 size_t length = kChachaKeyBytes);

struct KeyPair {
    Bytes privateKey;  // X25519's scalar, or Ed25519's 32-byte seed
    Bytes publicKey;
};

KeyPair x25519Generate();
// Nothing when the keys have the wrong size or the result is all zero (a
// small-order public key from the peer).
std::optional<Bytes> x25519Shared(const Bytes& privateKey, const Bytes& peerPublicKey);
std::optional<Bytes> x25519PublicKey(const Bytes& privateKey);

KeyPair ed25519Generate();
std::optional<Bytes> ed25519PublicKey(const Bytes& seed);
std::optional<Bytes> ed25519Sign(const Bytes& seed, const Bytes& message);
bool ed25519Verify(const Bytes& publicKey, const Bytes& message, const Bytes& signature);

// ChaCha20-Poly1305 as in RFC 8439: the 16-byte tag follows the ciphertext.
Bytes chachaSeal(const Bytes& key, const Bytes& nonce, const Bytes& aad, const Bytes& plaintext);
// Nothing when the tag does not match (or the sizes are wrong).
std::optional<Bytes> chachaOpen(const Bytes& key, const Bytes& nonce, const Bytes& aad,
                                const Bytes& sealed);
// Pairing's nonces: four zero bytes, then a label such as "PS-Msg05".
Bytes labelNonce(std::string_view label);

}  // namespace vt::hap
