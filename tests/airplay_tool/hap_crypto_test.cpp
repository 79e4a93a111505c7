// Each primitive as the pairing code calls it, against published answers:
// RFC 8439 (ChaCha20-Poly1305), RFC 7748 (X25519), RFC 8032 (Ed25519),
// RFC 5869 (HKDF). RFC 5054 gives SRP answers only for SHA-1, so the SRP
// vector here was made by fast-srp-hap (the SRP under hap-nodejs) with the
// same fixed secrets; and TLV8's fragments and bounds.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "airplay_tool/hap/hap_crypto.h"
#include "airplay_tool/hap/srp_client.h"
#include "airplay_tool/hap/tlv8.h"

using namespace vt::hap;

namespace {

Bytes hex(std::string_view text) {
    auto bytes = fromHex(text);
    EXPECT_TRUE(bytes) << text;
    return bytes.value_or(Bytes{});
}

Bytes counting(uint8_t from, size_t count, uint8_t step = 1) {
    Bytes out(count);
    for (size_t i = 0; i < count; ++i) out[i] = static_cast<uint8_t>(from + i * step);
    return out;
}

TEST(HapCrypto, ChaCha20Poly1305MatchesRfc8439AndRefusesAnyChange) {
    const Bytes key = counting(0x80, 32);
    const Bytes nonce = hex("070000004041424344454647");
    const Bytes aad = hex("50515253c0c1c2c3c4c5c6c7");
    const Bytes text = bytesOf(
        "Ladies and Gentlemen of the class of '99: If I could offer you only one tip for the "
        "future, sunscreen would be it.");
    const Bytes expected =
        hex("d31a8d34648e60db7b86afbc53ef7ec2a4aded51296e08fea9e2b5a736ee62d6"
            "3dbea45e8ca9671282fafb69da92728b1a71de0a9e060b2905d6a5b67ecd3b36"
            "92ddbd7f2d778b8c9803aee328091b58fab324e4fad675945585808b4831d7bc"
            "3ff4def08e4b7a9de576d26586cec64b6116"
            "1ae10b594f09e26a7e902ecbd0600691");
    const Bytes sealed = chachaSeal(key, nonce, aad, text);
    EXPECT_EQ(toHex(sealed), toHex(expected));
    EXPECT_EQ(chachaOpen(key, nonce, aad, sealed), text);

    Bytes flipped = sealed;
    flipped[3] ^= 1;
    EXPECT_FALSE(chachaOpen(key, nonce, aad, flipped));
    EXPECT_FALSE(chachaOpen(key, nonce, Bytes{}, sealed));
    EXPECT_FALSE(chachaOpen(key, nonce, aad, Bytes(sealed.begin(), sealed.begin() + 15)));
    EXPECT_EQ(toHex(labelNonce("PS-Msg05")), "00000000" + toHex(bytesOf("PS-Msg05")));
}

TEST(HapCrypto, X25519MatchesRfc7748AndRefusesASmallOrderPoint) {
    const Bytes alice = hex("77076d0a7318a57d3c16c17251b26645df4c2f87ebc0992ab177fba51db92c2a");
    const Bytes bob = hex("5dab087e624a8a4b79e17f8b83800ee66f3bb1292618b6fd1c2f8b27ff88e0eb");
    const Bytes alicePublic = x25519PublicKey(alice).value();
    EXPECT_EQ(toHex(alicePublic),
              "8520f0098930a754748b7ddcb43ef75a0dbf3a0d26381af4eba4a98eaa9b4e6a");
    const Bytes bobPublic = x25519PublicKey(bob).value();
    EXPECT_EQ(toHex(bobPublic), "de9edb7d7b7dc1b4d35b61c2ece435373f8343c85b78674dadfc7e146f882b4f");
    const char* shared = "4a5d9d5ba4ce2de1728e3bf480350f25e07e21c947d19e3376f09b3c1e161742";
    EXPECT_EQ(toHex(x25519Shared(alice, bobPublic).value()), shared);
    EXPECT_EQ(toHex(x25519Shared(bob, alicePublic).value()), shared);

    EXPECT_FALSE(x25519Shared(alice, Bytes(32, 0)));
    EXPECT_FALSE(x25519Shared(alice, Bytes(31, 9)));
}

TEST(HapCrypto, Ed25519MatchesRfc8032AndRejectsAnotherMessage) {
    const Bytes seed = hex("4ccd089b28ff96da9db6c346ec114e0f5b8a319f35aba624da8cf6ed4fb8a6fb");
    const Bytes publicKey = ed25519PublicKey(seed).value();
    EXPECT_EQ(toHex(publicKey), "3d4017c3e843895a92b70aa74d1b7ebc9c982ccf2ec4968cc0cd55f12af4660c");
    const Bytes message{0x72};
    const Bytes signature = ed25519Sign(seed, message).value();
    EXPECT_EQ(toHex(signature),
              "92a009a9f0d4cab8720e820b5f642540a2b27b5416503f8fb3762223ebdb69da"
              "085ac1e43e15996e458f3613d0f11d8c387b2eaeb4302aeeb00d291612bb0c00");
    EXPECT_TRUE(ed25519Verify(publicKey, message, signature));
    EXPECT_FALSE(ed25519Verify(publicKey, Bytes{0x73}, signature));
    EXPECT_FALSE(ed25519Verify(publicKey, message, Bytes(signature.begin(), signature.end() - 1)));
}

TEST(HapCrypto, HkdfMatchesRfc5869AndTheSha512KeysOfAnIndependentHkdf) {
    EXPECT_EQ(toHex(hkdf(EVP_sha256(), Bytes(22, 0x0b), counting(0, 13), counting(0xf0, 10), 42)),
              "3cb25f25faacd57a90434f64d0362f2a2d2d0a90cf1a5a4c5db02d56ecc4c5bf"
              "34007208d5b887185865");
    // Python's hmac module, HKDF written out by hand.
    EXPECT_EQ(toHex(hkdfSha512(counting(1, 32), "Control-Salt", "Control-Write-Encryption-Key")),
              "778d372c02be35f833ac8b625cf4c7912d44ddf6694660bc741adf0e5b901ffe");
}

TEST(SrpClient, AgreesWithFastSrpHapOnTheHap3072BitSha512Group) {
    const Bytes salt = hex("beb25379d1a8581eb5a727673a2441ee");
    const Bytes a = counting(1, 32, 7);
    const Bytes B =
        hex("4a83db3e5e87b57a5227bd26f1be81154f68f58aef476275c0c3cf6937f278ce"
            "eb431a1787f44cb621ef0737ce894e1479c3fc2730e0e1c3860beb83d2b466ef"
            "1d515122102b1a5aa226177c0be0ac7a570ed5699287c41e43ff4325b8ef61f2"
            "75f74db5be899d250672a5d3fe5d528e39601f1f2a75247acd0cda3fc953d813"
            "59b2025417605fcbb13faf00020661eac41760816eb53e91389c307f42dae55e"
            "618f2e2d90efd51043087bfed03404e9ebf7d5b9f1e4a53bd8ea050494c25f10"
            "f09f0c82b0760961f69b92f73bc19b7fdac72348b8d2a99d7da8fc6c79821ae3"
            "7ad2034a0d36f37d3b8c844a645e1e50f97c9f7c21f91c69474c5c9d925e4b03"
            "14aaf0d3031c82eefe9c05d071d42ddc276232c890335faff4cb68b1ed240450"
            "011f11164e825194dd137f4be5ae4615758a2a7aff7c1df84b8eb79df7f78839"
            "fec64b5e6b662078fea702b070fb6e9ed06ae47902cfd73302ac6ffb739f48f5"
            "cf8696d8a9ea8055554600d7ee5e976fc7d4cb10eb7b3ef184958d7321ed3bca");
    auto session = srpClientSession(kPairSetupUser, "3939", salt, B, a);
    ASSERT_TRUE(session);
    EXPECT_EQ(toHex(session->publicKey),
              "93826b8ec644428fcaec7c3ff8b40ef93cda99a61b3cfc79c365f5e5ad571965"
              "7a3297eada029aecb9136e9f6ee9cf24467f1046d06747b328a60f3d3f60f138"
              "d101f76a202f620937fd0b6becaf3383543f5973b3b542e7358803234fc584ec"
              "0fee13aaef66931867170c8e2f68ceeb5a2afa17a5ae95f67b431e516f39625f"
              "16505ac00f3ff3f349adc2e59556591162aeb370d1f3d9d2a3bb49ccec62a1ef"
              "38bf9100a48c59215cc10c1ff709af2114468ac82f2af8cd572230eb25ef8601"
              "692bda8a08b61cee4dfc12dbb2f055cae7620dadf36389224cb3a63d19a55f83"
              "b34be56c375da3aabbe6ef9d9758396192c422f19d5bfbdc7e0bc959ec376be0"
              "5072929c8fbfce17cb1cb50759be7e62a80a7334219c5043442a0cc029022a3d"
              "cff7e61a3107316bb1c68f4c3776e474e112a607867d8210cbdd956f256f42cc"
              "ddc812b23f61440a29e8413bf9ccae6af49a8511e033001dc1e450d14e4f88f7"
              "afae91f59b36610f7f931c7159672dc39167fb5cc52a2bdc22689a15caf17e11");
    EXPECT_EQ(toHex(session->proof),
              "eec3425013ccc15a889d22fb293b534f9ed64daee8fe67eab0f5359ee374b57a"
              "2ddc25e5689db7d6bb852fc14ffc49517d2c2bc00e348c3a9327caee01301971");
    EXPECT_EQ(toHex(session->expectedServerProof),
              "ceb68dc74984c5782f5b19fb294b51aeccf2f09e7631beb8b75f90114d71bbea"
              "7a3e6d14fc83dfafff30939f49d312ace7dda834ea0d043a489dfe98c8f79c14");
    EXPECT_EQ(toHex(session->sessionKey),
              "72a6c4ed1909a4351bb6d7ea97fc079a427ddb6e764af5ec3723f9d07d48ffef"
              "0fa4d10a2630aaeff4d7afbbdd4f048d2bbfc6b7e345269302dd2e768f8a5d4e");

    // Another code gives another proof; a B of zero (or N) is refused.
    EXPECT_NE(srpClientSession(kPairSetupUser, "3940", salt, B, a)->proof, session->proof);
    EXPECT_FALSE(srpClientSession(kPairSetupUser, "3939", salt, Bytes(kSrpGroupBytes, 0), a));
    EXPECT_FALSE(srpClientSession(kPairSetupUser, "3939", salt, Bytes(kSrpGroupBytes + 1, 1), a));
}

TEST(Tlv8, LongValuesGoInFragmentsAndComeBackWhole) {
    Tlv8 message;
    message.add(tlv::state, 3).add(tlv::publicKey, counting(0, 384)).add(tlv::proof, Bytes(64, 7));
    const Bytes wire = message.encode();
    // 384 bytes: 255 + 129, each with its own type and length.
    ASSERT_EQ(wire.size(), 3u + 2 + 255 + 2 + 129 + 2 + 64);
    EXPECT_EQ(wire[3], tlv::publicKey);
    EXPECT_EQ(wire[4], 255);
    EXPECT_EQ(wire[5 + 255], tlv::publicKey);

    auto back = Tlv8::decode(wire);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->byte(tlv::state), 3);
    EXPECT_EQ(*back->find(tlv::publicKey), counting(0, 384));
    EXPECT_EQ(*back->find(tlv::proof), Bytes(64, 7));

    // Two values of one type in a row stay two, with a separator between.
    Tlv8 two;
    two.add(tlv::identifier, Bytes(255, 1)).add(tlv::identifier, Bytes{2});
    auto twoBack = Tlv8::decode(two.encode());
    ASSERT_TRUE(twoBack);
    EXPECT_EQ(twoBack->find(tlv::identifier)->size(), 255u);
}

TEST(Tlv8, TruncatedOrOversizedInputIsRefused) {
    EXPECT_FALSE(Tlv8::decode(Bytes{tlv::state}));
    EXPECT_FALSE(Tlv8::decode(Bytes{tlv::state, 2, 1}));
    EXPECT_FALSE(Tlv8::decode(Bytes(kMaxTlv8Bytes + 2, 0)));
    auto empty = Tlv8::decode(Bytes{});
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->items().empty());
    auto wrongSize = Tlv8::decode(Bytes{tlv::state, 2, 1, 2});
    ASSERT_TRUE(wrongSize);
    EXPECT_FALSE(wrongSize->byte(tlv::state));
}

}  // namespace
