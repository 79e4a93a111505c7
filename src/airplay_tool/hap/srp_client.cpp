#include "airplay_tool/hap/srp_client.h"

#include <openssl/bn.h>

#include <memory>

#include "airplay_tool/hap/hap_crypto.h"

namespace vt::hap {

namespace {

constexpr unsigned long kGenerator = 5;

struct BnFree {
    void operator()(BIGNUM* p) const { BN_clear_free(p); }
};
struct BnCtxFree {
    void operator()(BN_CTX* p) const { BN_CTX_free(p); }
};
using Bn = std::unique_ptr<BIGNUM, BnFree>;

Bn fromBytes(const Bytes& bytes) {
    return Bn(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
}

Bytes padded(const BIGNUM* n) {
    Bytes out(kSrpGroupBytes);
    BN_bn2binpad(n, out.data(), static_cast<int>(out.size()));
    return out;
}

Bytes minimal(const BIGNUM* n) {
    Bytes out(static_cast<size_t>(BN_num_bytes(n)));
    BN_bn2bin(n, out.data());
    return out;
}

}  // namespace

std::optional<SrpClientSession> srpClientSession(std::string_view user, std::string_view password,
                                                 const Bytes& salt, const Bytes& serverPublicKey,
                                                 const Bytes& privateKey) {
    if (serverPublicKey.empty() || serverPublicKey.size() > kSrpGroupBytes || privateKey.empty())
        return std::nullopt;
    std::unique_ptr<BN_CTX, BnCtxFree> ctx(BN_CTX_new());
    // RFC 5054's 3072-bit prime is RFC 3526's.
    Bn N(BN_get_rfc3526_prime_3072(nullptr));
    Bn g(BN_new());
    Bn B = fromBytes(serverPublicKey);
    Bn a = fromBytes(privateKey);
    if (!ctx || !N || !g || !B || !a || BN_set_word(g.get(), kGenerator) != 1) return std::nullopt;

    Bn bModN(BN_new());
    if (!bModN || BN_nnmod(bModN.get(), B.get(), N.get(), ctx.get()) != 1 ||
        BN_is_zero(bModN.get()))
        return std::nullopt;

    const Bytes nBytes = minimal(N.get());
    const Bytes gBytes = minimal(g.get());
    const Bytes bPadded = padded(B.get());

    Bn k = fromBytes(Sha512().update(nBytes).update(padded(g.get())).finish());
    Bytes identity = Sha512().update(user).update(":").update(password).finish();
    Bn x = fromBytes(Sha512().update(salt).update(identity).finish());

    Bn A(BN_new());
    if (!A || BN_mod_exp(A.get(), g.get(), a.get(), N.get(), ctx.get()) != 1) return std::nullopt;
    const Bytes aPadded = padded(A.get());

    Bn u = fromBytes(Sha512().update(aPadded).update(bPadded).finish());
    if (!k || !x || !u || BN_is_zero(u.get())) return std::nullopt;

    // S = (B - k * g^x) ^ (a + u * x) mod N
    Bn gx(BN_new()), kgx(BN_new()), base(BN_new()), ux(BN_new()), exponent(BN_new()), S(BN_new());
    if (!gx || !kgx || !base || !ux || !exponent || !S ||
        BN_mod_exp(gx.get(), g.get(), x.get(), N.get(), ctx.get()) != 1 ||
        BN_mod_mul(kgx.get(), k.get(), gx.get(), N.get(), ctx.get()) != 1 ||
        BN_mod_sub(base.get(), B.get(), kgx.get(), N.get(), ctx.get()) != 1 ||
        BN_mul(ux.get(), u.get(), x.get(), ctx.get()) != 1 ||
        BN_add(exponent.get(), a.get(), ux.get()) != 1 ||
        BN_mod_exp(S.get(), base.get(), exponent.get(), N.get(), ctx.get()) != 1)
        return std::nullopt;

    SrpClientSession session;
    session.publicKey = aPadded;
    session.sessionKey = sha512(padded(S.get()));

    Bytes hN = sha512(nBytes);
    const Bytes hG = sha512(gBytes);
    for (size_t i = 0; i < hN.size(); ++i) hN[i] ^= hG[i];
    session.proof = Sha512()
                        .update(hN)
                        .update(sha512(bytesOf(user)))
                        .update(salt)
                        .update(aPadded)
                        .update(bPadded)
                        .update(session.sessionKey)
                        .finish();
    session.expectedServerProof =
        Sha512().update(aPadded).update(session.proof).update(session.sessionKey).finish();
    return session;
}

}  // namespace vt::hap
