#include "srp_server.h"

#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <string_view>

namespace vt::airplay_test {

namespace {

constexpr size_t kGroupBytes = 384;
constexpr size_t kSaltBytes = 16;
constexpr size_t kPrivateBytes = 32;

Bytes hash(std::initializer_list<Bytes> parts) {
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestInit_ex(ctx, EVP_sha512(), nullptr);
    for (const Bytes& part : parts) EVP_DigestUpdate(ctx, part.data(), part.size());
    EVP_DigestFinal_ex(ctx, out.data(), &length);
    EVP_MD_CTX_free(ctx);
    out.resize(length);
    return out;
}

Bytes text(std::string_view s) {
    return Bytes(s.begin(), s.end());
}

Bytes pad(const BIGNUM* n) {
    Bytes out(kGroupBytes);
    BN_bn2binpad(n, out.data(), static_cast<int>(out.size()));
    return out;
}

Bytes bytes(const BIGNUM* n) {
    Bytes out(static_cast<size_t>(BN_num_bytes(n)));
    BN_bn2bin(n, out.data());
    return out;
}

BIGNUM* number(const Bytes& b) {
    return BN_bin2bn(b.data(), static_cast<int>(b.size()), nullptr);
}

}  // namespace

struct SrpServer::Numbers {
    BN_CTX* ctx = BN_CTX_new();
    BIGNUM* N = BN_get_rfc3526_prime_3072(nullptr);
    BIGNUM* g = BN_new();
    BIGNUM* v = BN_new();
    BIGNUM* b = nullptr;
    BIGNUM* B = BN_new();
    ~Numbers() {
        for (BIGNUM* x : {N, g, v, b, B}) BN_clear_free(x);
        BN_CTX_free(ctx);
    }
};

SrpServer::SrpServer(const std::string& code) : n_(new Numbers), salt_(kSaltBytes) {
    RAND_bytes(salt_.data(), static_cast<int>(salt_.size()));
    Bytes secret(kPrivateBytes);
    RAND_bytes(secret.data(), static_cast<int>(secret.size()));
    n_->b = number(secret);
    BN_set_word(n_->g, 5);
    // v = g^x, x = H(salt | H("Pair-Setup:" code))
    BIGNUM* x = number(hash({salt_, hash({text("Pair-Setup:" + code)})}));
    BN_mod_exp(n_->v, n_->g, x, n_->N, n_->ctx);
    BN_clear_free(x);
    // B = k v + g^b, k = H(N | PAD(g))
    BIGNUM* k = number(hash({bytes(n_->N), pad(n_->g)}));
    BIGNUM* kv = BN_new();
    BIGNUM* gb = BN_new();
    BN_mod_mul(kv, k, n_->v, n_->N, n_->ctx);
    BN_mod_exp(gb, n_->g, n_->b, n_->N, n_->ctx);
    BN_mod_add(n_->B, kv, gb, n_->N, n_->ctx);
    for (BIGNUM* t : {k, kv, gb}) BN_free(t);
    B_ = pad(n_->B);
}

SrpServer::~SrpServer() {
    delete n_;
}

std::optional<SrpServer::Verified> SrpServer::verify(const Bytes& clientPublicKey,
                                                     const Bytes& clientProof) {
    if (clientPublicKey.empty() || clientPublicKey.size() > kGroupBytes) return std::nullopt;
    BIGNUM* A = number(clientPublicKey);
    BIGNUM* aModN = BN_new();
    BN_nnmod(aModN, A, n_->N, n_->ctx);
    const bool zero = BN_is_zero(aModN);
    BN_free(aModN);
    if (zero) {
        BN_free(A);
        return std::nullopt;
    }
    const Bytes aPadded = pad(A);
    // S = (A v^u)^b, u = H(PAD(A) | PAD(B))
    BIGNUM* u = number(hash({aPadded, B_}));
    BIGNUM* vu = BN_new();
    BIGNUM* base = BN_new();
    BIGNUM* S = BN_new();
    BN_mod_exp(vu, n_->v, u, n_->N, n_->ctx);
    BN_mod_mul(base, A, vu, n_->N, n_->ctx);
    BN_mod_exp(S, base, n_->b, n_->N, n_->ctx);
    const Bytes K = hash({pad(S)});
    for (BIGNUM* t : {A, u, vu, base, S}) BN_clear_free(t);

    Bytes hN = hash({bytes(n_->N)});
    const Bytes hG = hash({bytes(n_->g)});
    for (size_t i = 0; i < hN.size(); ++i) hN[i] ^= hG[i];
    const Bytes expected = hash({hN, hash({text("Pair-Setup")}), salt_, aPadded, B_, K});
    if (expected.size() != clientProof.size() ||
        CRYPTO_memcmp(expected.data(), clientProof.data(), expected.size()) != 0)
        return std::nullopt;
    return Verified{K, hash({aPadded, clientProof, K})};
}

}  // namespace vt::airplay_test
