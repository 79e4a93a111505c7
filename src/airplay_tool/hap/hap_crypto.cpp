#include "airplay_tool/hap/hap_crypto.h"

#include <openssl/crypto.h>
#include <openssl/kdf.h>
#include <openssl/rand.h>

#include <memory>
#include <stdexcept>

namespace vt::hap {

namespace {

struct PkeyFree {
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
struct PkeyCtxFree {
    void operator()(EVP_PKEY_CTX* p) const { EVP_PKEY_CTX_free(p); }
};
struct CipherCtxFree {
    void operator()(EVP_CIPHER_CTX* p) const { EVP_CIPHER_CTX_free(p); }
};
struct MdCtxFree {
    void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree>;
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree>;
using MdCtx = std::unique_ptr<EVP_MD_CTX, MdCtxFree>;

KeyPair generate(int type) {
    EVP_PKEY* raw = nullptr;
    PkeyCtx ctx(EVP_PKEY_CTX_new_id(type, nullptr));
    if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1 || EVP_PKEY_keygen(ctx.get(), &raw) != 1)
        throw std::runtime_error("key generation failed");
    Pkey key(raw);
    KeyPair pair{Bytes(kCurve25519KeyBytes), Bytes(kCurve25519KeyBytes)};
    size_t privateLength = pair.privateKey.size();
    size_t publicLength = pair.publicKey.size();
    if (EVP_PKEY_get_raw_private_key(key.get(), pair.privateKey.data(), &privateLength) != 1 ||
        EVP_PKEY_get_raw_public_key(key.get(), pair.publicKey.data(), &publicLength) != 1)
        throw std::runtime_error("key export failed");
    return pair;
}

Pkey privateKey(int type, const Bytes& raw) {
    if (raw.size() != kCurve25519KeyBytes) return nullptr;
    return Pkey(EVP_PKEY_new_raw_private_key(type, nullptr, raw.data(), raw.size()));
}

Pkey publicKey(int type, const Bytes& raw) {
    if (raw.size() != kCurve25519KeyBytes) return nullptr;
    return Pkey(EVP_PKEY_new_raw_public_key(type, nullptr, raw.data(), raw.size()));
}

std::optional<Bytes> rawPublic(const Pkey& key) {
    if (!key) return std::nullopt;
    Bytes out(kCurve25519KeyBytes);
    size_t length = out.size();
    if (EVP_PKEY_get_raw_public_key(key.get(), out.data(), &length) != 1) return std::nullopt;
    return out;
}

int size(const Bytes& b) {
    return static_cast<int>(b.size());
}

}  // namespace

Bytes randomBytes(size_t count) {
    Bytes out(count);
    if (RAND_bytes(out.data(), static_cast<int>(count)) != 1)
        throw std::runtime_error("no random bytes");
    return out;
}

bool constantTimeEqual(const Bytes& a, const Bytes& b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

Sha512::Sha512() : ctx_(EVP_MD_CTX_new()) {
    if (!ctx_ || EVP_DigestInit_ex(ctx_, EVP_sha512(), nullptr) != 1)
        throw std::runtime_error("SHA-512 unavailable");
}

Sha512::~Sha512() {
    EVP_MD_CTX_free(ctx_);
}

Sha512& Sha512::update(const uint8_t* data, size_t size) {
    EVP_DigestUpdate(ctx_, data, size);
    return *this;
}

Sha512& Sha512::update(std::string_view text) {
    return update(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

Bytes Sha512::finish() {
    Bytes out(kSha512Bytes);
    unsigned int length = 0;
    EVP_DigestFinal_ex(ctx_, out.data(), &length);
    EVP_DigestInit_ex(ctx_, EVP_sha512(), nullptr);
    return out;
}

Bytes sha512(const Bytes& data) {
    return Sha512().update(data).finish();
}

Bytes hkdf(const EVP_MD* digest, const Bytes& secret, const Bytes& salt, const Bytes& info,
           size_t length) {
    PkeyCtx ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_HKDF, nullptr));
    Bytes out(length);
    size_t outLength = length;
    if (!ctx || EVP_PKEY_derive_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_hkdf_md(ctx.get(), digest) != 1 ||
        EVP_PKEY_CTX_set1_hkdf_salt(ctx.get(), salt.data(), size(salt)) != 1 ||
        EVP_PKEY_CTX_set1_hkdf_key(ctx.get(), secret.data(), size(secret)) != 1 ||
        EVP_PKEY_CTX_add1_hkdf_info(ctx.get(), info.data(), size(info)) != 1 ||
        EVP_PKEY_derive(ctx.get(), out.data(), &outLength) != 1 || outLength != length)
        throw std::runtime_error("HKDF failed");
    return out;
}

Bytes hkdfSha512(const Bytes& secret, std::string_view salt, std::string_view info, size_t length) {
    return hkdf(EVP_sha512(), secret, bytesOf(salt), bytesOf(info), length);
}

KeyPair x25519Generate() {
    return generate(EVP_PKEY_X25519);
}

std::optional<Bytes> x25519PublicKey(const Bytes& key) {
    return rawPublic(privateKey(EVP_PKEY_X25519, key));
}

std::optional<Bytes> x25519Shared(const Bytes& ours, const Bytes& theirs) {
    Pkey own = privateKey(EVP_PKEY_X25519, ours);
    Pkey peer = publicKey(EVP_PKEY_X25519, theirs);
    if (!own || !peer) return std::nullopt;
    PkeyCtx ctx(EVP_PKEY_CTX_new(own.get(), nullptr));
    Bytes out(kCurve25519KeyBytes);
    size_t length = out.size();
    // OpenSSL refuses an all-zero result itself, which is what a small-order
    // point from a hostile peer gives.
    if (!ctx || EVP_PKEY_derive_init(ctx.get()) != 1 ||
        EVP_PKEY_derive_set_peer(ctx.get(), peer.get()) != 1 ||
        EVP_PKEY_derive(ctx.get(), out.data(), &length) != 1 || length != out.size())
        return std::nullopt;
    return out;
}

KeyPair ed25519Generate() {
    return generate(EVP_PKEY_ED25519);
}

std::optional<Bytes> ed25519PublicKey(const Bytes& seed) {
    return rawPublic(privateKey(EVP_PKEY_ED25519, seed));
}

std::optional<Bytes> ed25519Sign(const Bytes& seed, const Bytes& message) {
    Pkey key = privateKey(EVP_PKEY_ED25519, seed);
    MdCtx ctx(EVP_MD_CTX_new());
    if (!key || !ctx) return std::nullopt;
    Bytes signature(kEd25519SignatureBytes);
    size_t length = signature.size();
    if (EVP_DigestSignInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) != 1 ||
        EVP_DigestSign(ctx.get(), signature.data(), &length, message.data(), message.size()) != 1 ||
        length != signature.size())
        return std::nullopt;
    return signature;
}

bool ed25519Verify(const Bytes& publicKeyBytes, const Bytes& message, const Bytes& signature) {
    Pkey key = publicKey(EVP_PKEY_ED25519, publicKeyBytes);
    MdCtx ctx(EVP_MD_CTX_new());
    if (!key || !ctx || signature.size() != kEd25519SignatureBytes) return false;
    return EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
           EVP_DigestVerify(ctx.get(), signature.data(), signature.size(), message.data(),
                            message.size()) == 1;
}

Bytes chachaSeal(const Bytes& key, const Bytes& nonce, const Bytes& aad, const Bytes& plaintext) {
    if (key.size() != kChachaKeyBytes || nonce.size() != kChachaNonceBytes)
        throw std::invalid_argument("ChaCha20-Poly1305 key or nonce of the wrong size");
    CipherCtx ctx(EVP_CIPHER_CTX_new());
    Bytes out(plaintext.size() + kChachaTagBytes);
    int length = 0;
    int tail = 0;
    if (!ctx ||
        EVP_EncryptInit_ex(ctx.get(), EVP_chacha20_poly1305(), nullptr, key.data(), nonce.data()) !=
            1 ||
        (!aad.empty() &&
         EVP_EncryptUpdate(ctx.get(), nullptr, &length, aad.data(), size(aad)) != 1) ||
        EVP_EncryptUpdate(ctx.get(), out.data(), &length, plaintext.data(), size(plaintext)) != 1 ||
        EVP_EncryptFinal_ex(ctx.get(), out.data() + length, &tail) != 1 ||
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_GET_TAG, kChachaTagBytes,
                            out.data() + plaintext.size()) != 1)
        throw std::runtime_error("ChaCha20-Poly1305 failed");
    return out;
}

std::optional<Bytes> chachaOpen(const Bytes& key, const Bytes& nonce, const Bytes& aad,
                                const Bytes& sealed) {
    if (key.size() != kChachaKeyBytes || nonce.size() != kChachaNonceBytes ||
        sealed.size() < kChachaTagBytes)
        return std::nullopt;
    const size_t textLength = sealed.size() - kChachaTagBytes;
    CipherCtx ctx(EVP_CIPHER_CTX_new());
    Bytes out(textLength);
    Bytes tag(sealed.end() - kChachaTagBytes, sealed.end());
    int length = 0;
    int tail = 0;
    if (!ctx ||
        EVP_DecryptInit_ex(ctx.get(), EVP_chacha20_poly1305(), nullptr, key.data(), nonce.data()) !=
            1 ||
        (!aad.empty() &&
         EVP_DecryptUpdate(ctx.get(), nullptr, &length, aad.data(), size(aad)) != 1) ||
        EVP_DecryptUpdate(ctx.get(), out.data(), &length, sealed.data(),
                          static_cast<int>(textLength)) != 1 ||
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_SET_TAG, kChachaTagBytes, tag.data()) != 1 ||
        EVP_DecryptFinal_ex(ctx.get(), out.data() + length, &tail) != 1)
        return std::nullopt;
    return out;
}

Bytes labelNonce(std::string_view label) {
    if (label.size() > kChachaNonceBytes) throw std::invalid_argument("nonce label too long");
    Bytes nonce(kChachaNonceBytes - label.size(), 0);
    nonce.insert(nonce.end(), label.begin(), label.end());
    return nonce;
}

}  // namespace vt::hap
