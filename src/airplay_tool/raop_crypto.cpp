#include "airplay_tool/raop_crypto.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <string_view>

#include "airplay_tool/base64.h"

namespace vt::airplay_tool {

namespace {

// The AirPort Express RSA-2048 public key: modulus and exponent 65537.
constexpr std::string_view kAirPortModulusBase64 =
    "59dE8qLieItsH1WgjrcFRKj6eUWqi+bGLOX1HL3U3GhC/j0Qg90u3sG/"
    "1CUtwC5vOYvfDmFI6oSFXi5ELabWJmT2dKHzBJKa"
    "3k9ok+8t9ucRqMd6DZHJ2YCCLlDRKSKv6kDqnw4UwPdpOMXziC/AMj3Z/"
    "lUVX1G7WSHCAWKf1zNS1eLvqr+boEjXuBOitnZ/"
    "bDzPHrTOZz0Dew0uowxf/+sG+NCK3eQJVxqcaJ/"
    "vEHKIVd2M+5qL71yJQ+87X6oV3eaYvt3zWZYD6z5vYTcrtij2VZ9Zmni/"
    "UAaHqn9JdsBWLUEpVviYnhimNVvYFZeCXg/IdTQ+x4IRdiXNv5hEew==";
constexpr unsigned long kAirPortExponent = 65537;
constexpr size_t kAesBlockBytes = 16;

template <typename T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* p) const { Free(p); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using BnPtr = std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>>;
using ParamBldPtr = std::unique_ptr<OSSL_PARAM_BLD, Deleter<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>>;
using ParamPtr = std::unique_ptr<OSSL_PARAM, Deleter<OSSL_PARAM, OSSL_PARAM_free>>;

PkeyPtr airPortPublicKey() {
    auto modulus = base64Decode(kAirPortModulusBase64);
    if (!modulus) return nullptr;
    BnPtr n(BN_bin2bn(modulus->data(), static_cast<int>(modulus->size()), nullptr));
    BnPtr e(BN_new());
    if (!n || !e || !BN_set_word(e.get(), kAirPortExponent)) return nullptr;
    ParamBldPtr build(OSSL_PARAM_BLD_new());
    if (!build || !OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) ||
        !OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_E, e.get()))
        return nullptr;
    ParamPtr params(OSSL_PARAM_BLD_to_param(build.get()));
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) <= 0) return nullptr;
    EVP_PKEY* key = nullptr;
    if (EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_PUBLIC_KEY, params.get()) <= 0) return nullptr;
    return PkeyPtr(key);
}

}  // namespace

std::optional<SessionKeys> makeSessionKeys() {
    SessionKeys keys;
    if (RAND_bytes(keys.key.data(), kAesKeyBytes) != 1) return std::nullopt;
    if (RAND_bytes(keys.iv.data(), kAesKeyBytes) != 1) return std::nullopt;
    return keys;
}

std::optional<std::vector<uint8_t>> wrapKeyForReceiver(const AesKey& key) {
    PkeyPtr publicKey = airPortPublicKey();
    if (!publicKey) return std::nullopt;
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new(publicKey.get(), nullptr));
    if (!ctx || EVP_PKEY_encrypt_init(ctx.get()) <= 0 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_OAEP_PADDING) <= 0)
        return std::nullopt;
    size_t length = 0;
    if (EVP_PKEY_encrypt(ctx.get(), nullptr, &length, key.data(), key.size()) <= 0)
        return std::nullopt;
    std::vector<uint8_t> out(length);
    if (EVP_PKEY_encrypt(ctx.get(), out.data(), &length, key.data(), key.size()) <= 0)
        return std::nullopt;
    out.resize(length);
    return out;
}

struct PacketEncryptor::Context {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    ~Context() { EVP_CIPHER_CTX_free(ctx); }
};

PacketEncryptor::PacketEncryptor(const AesKey& key, const AesKey& iv)
    : key_(key), iv_(iv), context_(std::make_unique<Context>()) {}

PacketEncryptor::~PacketEncryptor() = default;

bool PacketEncryptor::encrypt(std::span<uint8_t> payload) {
    const size_t whole = payload.size() / kAesBlockBytes * kAesBlockBytes;
    if (whole == 0) return true;
    EVP_CIPHER_CTX* ctx = context_->ctx;
    // Every packet starts a new chain from the session IV.
    if (!ctx || EVP_EncryptInit_ex(ctx, EVP_aes_128_cbc(), nullptr, key_.data(), iv_.data()) != 1)
        return false;
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    std::array<uint8_t, 2048> out{};
    if (whole > out.size()) return false;
    int written = 0;
    if (EVP_EncryptUpdate(ctx, out.data(), &written, payload.data(), static_cast<int>(whole)) !=
            1 ||
        static_cast<size_t>(written) != whole)
        return false;
    std::copy_n(out.begin(), whole, payload.begin());
    return true;
}

}  // namespace vt::airplay_tool
