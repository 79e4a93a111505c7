// What a receiver may answer wrongly during pairing, and the encrypted
// frames after it: the interplay with a real accessory is in
// hap_pairing_test; here are the answers no honest accessory gives.
#include <gtest/gtest.h>

#include "airplay_tool/hap/channel_cipher.h"
#include "airplay_tool/hap/credentials.h"
#include "airplay_tool/hap/hap_crypto.h"
#include "airplay_tool/hap/pair_setup.h"
#include "airplay_tool/hap/tlv8.h"

using namespace vt::hap;
using Kind = PairingFailure::Kind;

namespace {

Bytes reply(std::initializer_list<std::pair<uint8_t, Bytes>> items) {
    Tlv8 t;
    for (const auto& [type, value] : items) t.add(type, value);
    return t.encode();
}

Bytes validM2() {
    Bytes b(384, 0);
    b[383] = 2;
    return reply({{tlv::state, {2}}, {tlv::salt, Bytes(16, 1)}, {tlv::publicKey, b}});
}

TEST(PairSetupClient, SortsTheAccessorysBadAnswers) {
    PairSetupClient transient("3939");
    auto m1 = Tlv8::decode(transient.m1());
    ASSERT_TRUE(m1);
    EXPECT_EQ(m1->byte(tlv::flags), 0x10);
    EXPECT_FALSE(PairSetupClient("1234", newControllerIdentity("ID")).m1().empty());
    EXPECT_FALSE(
        Tlv8::decode(PairSetupClient("1234", newControllerIdentity("ID")).m1())->find(tlv::flags));

    const auto kindOf = [](const PairingResult<Bytes>& r) { return r.failure().kind; };
    EXPECT_EQ(kindOf(PairSetupClient("3939").m3(reply({{tlv::state, {2}}}))), Kind::malformed);
    EXPECT_EQ(kindOf(PairSetupClient("3939").m3(reply({{tlv::state, {4}}}))), Kind::malformed);
    EXPECT_EQ(kindOf(PairSetupClient("3939").m3(Bytes{6, 5, 1})), Kind::malformed);
    EXPECT_EQ(kindOf(PairSetupClient("3939").m3(
                  reply({{tlv::state, {2}}, {tlv::error, {tlv_error::unavailable}}}))),
              Kind::refused);
    EXPECT_EQ(
        kindOf(PairSetupClient("3939").m3(reply(
            {{tlv::state, {2}}, {tlv::salt, Bytes(16, 1)}, {tlv::publicKey, Bytes(384, 0)}}))),
        Kind::notGenuine);

    // An authentication error after M3 is a wrong code; a wrong proof is
    // an accessory that does not know the code at all.
    PairSetupClient client("3939");
    ASSERT_TRUE(client.m3(validM2()));
    EXPECT_EQ(
        kindOf(client.m5(reply({{tlv::state, {4}}, {tlv::error, {tlv_error::authentication}}}))),
        Kind::wrongCode);
    EXPECT_EQ(kindOf(client.m5(reply({{tlv::state, {4}}, {tlv::proof, Bytes(64, 0)}}))),
              Kind::notGenuine);
    EXPECT_FALSE(client.finish(reply({{tlv::state, {6}}})));
}

TEST(PairingCredentials, RoundTripAndRefuseAnythingElse) {
    const ControllerIdentity id = newControllerIdentity("ID");
    const PairingCredentials c{id.seed, id.publicKey, ed25519Generate().publicKey};
    const std::string text = c.toHex();
    ASSERT_EQ(text.size(), kCredentialsHexDigits);
    auto back = PairingCredentials::fromHex(text);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->accessoryPublicKey, c.accessoryPublicKey);
    EXPECT_FALSE(PairingCredentials::fromHex(text.substr(1)));
    EXPECT_FALSE(PairingCredentials::fromHex("zz" + text.substr(2)));
    // A public key that is not the seed's: damaged or pasted from elsewhere.
    std::string swapped = text;
    swapped[64] = swapped[64] == '0' ? '1' : '0';
    EXPECT_FALSE(PairingCredentials::fromHex(swapped));
}

TEST(ChannelCipher, FramesSplitAtTheLimitAndOpenFromAnyPieces) {
    const ChannelKeys keys = controlChannelKeys(Bytes(32, 7));
    EXPECT_NE(keys.outgoing, keys.incoming);
    EXPECT_EQ(toHex(counterNonce(0x0102)), "000000000201000000000000");

    FrameSealer sealer(keys.outgoing);
    std::string wire;
    const std::string first(2500, 'a');
    sealer.seal(first, wire);
    sealer.seal("GET /info RTSP/1.0\r\n\r\n", wire);
    // 1024 + 1024 + 452, then the short one: four frames, each 18 bytes longer.
    ASSERT_EQ(wire.size(), first.size() + 22 + 4 * 18);
    EXPECT_EQ(static_cast<uint8_t>(wire[0]), 0x00);
    EXPECT_EQ(static_cast<uint8_t>(wire[1]), 0x04);

    for (size_t step : {1u, 17u, 1042u, 5000u}) {
        FrameOpener opener(keys.outgoing);
        std::string plain;
        for (size_t at = 0; at < wire.size(); at += step)
            ASSERT_EQ(opener.append(std::string_view(wire).substr(at, step), plain),
                      FrameOpener::State::ok);
        EXPECT_EQ(plain, first + "GET /info RTSP/1.0\r\n\r\n") << step;
    }

    // Out of order (the counter), tampered, or claiming too much: broken for good.
    FrameOpener skipped(keys.outgoing);
    std::string plain;
    EXPECT_EQ(skipped.append(std::string_view(wire).substr(1042), plain),
              FrameOpener::State::broken);
    std::string tampered = wire;
    tampered[10] ^= 1;
    EXPECT_EQ(FrameOpener(keys.outgoing).append(tampered, plain), FrameOpener::State::broken);
    EXPECT_EQ(FrameOpener(keys.outgoing).append(std::string("\x01\x04", 2), plain),
              FrameOpener::State::broken);
    EXPECT_EQ(FrameOpener(keys.incoming).append(wire, plain), FrameOpener::State::broken);
}

}  // namespace
