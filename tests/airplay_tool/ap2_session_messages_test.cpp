// What the AirPlay 2 session says to a receiver and how it reads the
// answers: the SETUP plists as a receiver reads them, the receiver's answers
// read by key with every unusable one refused, and the realtime packets
// against values worked out independently.
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <array>
#include <memory>

#include "airplay_tool/ap2_rtp_packets.h"
#include "airplay_tool/session_plists.h"

using namespace vt::airplay_tool;

namespace {

struct PlistFree {
    void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
using Plist = std::unique_ptr<void, PlistFree>;

Plist read(const std::string& body) {
    plist_t root = nullptr;
    plist_from_bin(body.data(), static_cast<uint32_t>(body.size()), &root);
    return Plist(root);
}

plist_t at(const Plist& root, const char* key) {
    return plist_dict_get_item(static_cast<plist_t>(root.get()), key);
}

uint64_t number(plist_t node) {
    uint64_t v = 0;
    if (node && plist_get_node_type(node) == PLIST_UINT) plist_get_uint_val(node, &v);
    return v;
}

std::string text(plist_t node) {
    uint64_t length = 0;
    const char* p = node && plist_get_node_type(node) == PLIST_STRING
                        ? plist_get_string_ptr(node, &length)
                        : nullptr;
    return p ? std::string(p, length) : std::string();
}

std::string binary(plist_t root) {
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bin, &length);
    std::string out(bin, length);
    plist_to_bin_free(bin);
    plist_free(root);
    return out;
}

plist_t streamEntry(uint64_t dataPort, uint64_t controlPort) {
    plist_t entry = plist_new_dict();
    plist_dict_set_item(entry, "type", plist_new_uint(96));
    plist_dict_set_item(entry, "dataPort", plist_new_uint(dataPort));
    plist_dict_set_item(entry, "controlPort", plist_new_uint(controlPort));
    return entry;
}

std::string streamsReply(std::initializer_list<plist_t> entries) {
    plist_t dict = plist_new_dict();
    plist_t list = plist_new_array();
    for (plist_t e : entries) plist_array_append_item(list, e);
    plist_dict_set_item(dict, "streams", list);
    return binary(dict);
}

}  // namespace

TEST(SessionPlists, SetupsCarryWhatTheReceiverReads) {
    SessionSetup session;
    session.deviceID = "AA:BB:CC:DD:EE:FF";
    session.name = "Kitchen (Vellatone)";
    session.ptpPeer = ptp::TimingPeerInfo{{"192.168.1.20"}, "192.168.1.20", -2, 0, false};
    Plist ptpSetup = read(buildSessionSetup(session));
    EXPECT_EQ(text(at(ptpSetup, "timingProtocol")), "PTP");
    plist_t peer = at(ptpSetup, "timingPeerInfo");
    // A clock identity with its top bit set stays the same 64 bits.
    EXPECT_EQ(number(plist_dict_get_item(peer, "ClockID")), static_cast<uint64_t>(-2));
    EXPECT_EQ(text(plist_array_get_item(plist_dict_get_item(peer, "Addresses"), 0)),
              "192.168.1.20");
    EXPECT_EQ(text(at(ptpSetup, "name")), "Kitchen (Vellatone)");
    EXPECT_FALSE(at(ptpSetup, "timingPort"));

    session.ptpPeer.reset();
    session.ntpTimingPort = 6002;
    Plist ntpSetup = read(buildSessionSetup(session));
    EXPECT_EQ(text(at(ntpSetup, "timingProtocol")), "NTP");
    EXPECT_EQ(number(at(ntpSetup, "timingPort")), 6002u);
    EXPECT_FALSE(at(ntpSetup, "timingPeerInfo"));

    StreamSetup stream;
    stream.streamKey = vt::hap::Bytes(kStreamKeyBytes, 0xAB);
    stream.controlPort = 6001;
    Plist streamSetup = read(buildStreamSetup(stream));
    plist_t entry = plist_array_get_item(at(streamSetup, "streams"), 0);
    EXPECT_EQ(number(plist_dict_get_item(entry, "type")), 96u);
    EXPECT_EQ(number(plist_dict_get_item(entry, "audioFormat")), 0x40000u);
    EXPECT_EQ(number(plist_dict_get_item(entry, "controlPort")), 6001u);
    uint64_t keyLength = 0;
    const char* key = plist_get_data_ptr(plist_dict_get_item(entry, "shk"), &keyLength);
    EXPECT_EQ(std::string(key, keyLength), std::string(kStreamKeyBytes, '\xAB'));

    Plist peers = read(buildSetPeers({"192.168.1.30", "192.168.1.20"}));
    ASSERT_EQ(plist_array_get_size(static_cast<plist_t>(peers.get())), 2u);
    EXPECT_EQ(text(plist_array_get_item(static_cast<plist_t>(peers.get()), 0)), "192.168.1.30");
}

TEST(SessionPlists, AnswersAreReadByKeyAndUnusableOnesRefused) {
    plist_t session = plist_new_dict();
    plist_dict_set_item(session, "timingPort", plist_new_uint(0));
    plist_dict_set_item(session, "eventPort", plist_new_uint(51234));
    EXPECT_EQ(parseSessionSetupReply(binary(session))->eventPort, 51234);

    plist_t withBounds = streamEntry(6000, 6001);
    plist_dict_set_item(withBounds, "latencyMin", plist_new_uint(11025));
    plist_dict_set_item(withBounds, "latencyMax", plist_new_uint(88200));
    const auto reply = parseStreamSetupReply(streamsReply({withBounds}));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->dataPort, 6000);
    EXPECT_EQ(reply->controlPort, 6001);
    EXPECT_EQ(reply->latencyMinFrames, 11025u);

    // Bounds the wrong way round are no bounds.
    plist_t crossed = streamEntry(6000, 6001);
    plist_dict_set_item(crossed, "latencyMin", plist_new_uint(88200));
    plist_dict_set_item(crossed, "latencyMax", plist_new_uint(11025));
    EXPECT_FALSE(parseStreamSetupReply(streamsReply({crossed}))->latencyMinFrames);

    plist_t noEvent = plist_new_dict();
    plist_dict_set_item(noEvent, "eventPort", plist_new_string("51234"));
    EXPECT_FALSE(parseSessionSetupReply(binary(noEvent)));
    EXPECT_FALSE(parseSessionSetupReply(binary(plist_new_array())));
    EXPECT_FALSE(parseSessionSetupReply("<plist><dict><key>eventPort</key></dict></plist>"));
    EXPECT_FALSE(parseSessionSetupReply(""));

    EXPECT_FALSE(parseStreamSetupReply(streamsReply({streamEntry(0, 6001)})));
    EXPECT_FALSE(parseStreamSetupReply(streamsReply({streamEntry(6000, 70000)})));
    EXPECT_FALSE(parseStreamSetupReply(streamsReply({})));
    EXPECT_FALSE(
        parseStreamSetupReply(streamsReply({streamEntry(6000, 6001), streamEntry(6002, 6003)})));
    plist_t buffered = streamEntry(6000, 6001);
    plist_dict_set_item(buffered, "type", plist_new_uint(103));
    EXPECT_FALSE(parseStreamSetupReply(streamsReply({buffered})));
    std::string cut = streamsReply({streamEntry(6000, 6001)});
    cut.resize(cut.size() - 10);
    EXPECT_FALSE(parseStreamSetupReply(cut));
    EXPECT_FALSE(parseStreamSetupReply("bplist00" + std::string(kMaxSetupReplyBytes, 'x')));
}

TEST(Ap2RtpPackets, AudioIsSealedUnderTheHeaderWithTheNonceTailAfterTheTag) {
    // Worked out with Python's `cryptography` (ChaCha20Poly1305, key 00..1f,
    // nonce 00000000 0201000000000000, associated data bytes 4-11).
    std::array<uint8_t, 12 + 8 + kSealedPacketExtraBytes> packet = {
        0x80, 0xe0, 0x12, 0x34, 0x00, 0x01, 0x02, 0x03, 0,   0,
        0,    0,    'v',  'e',  'r',  'b',  'a',  't',  'i', 'm'};
    vt::hap::Bytes key(32);
    for (size_t i = 0; i < key.size(); ++i) key[i] = static_cast<uint8_t>(i);
    const size_t length = sealAudioPacket(key, packet, 8, 0x0102);
    EXPECT_EQ(
        vt::hap::toHex(vt::hap::Bytes(packet.begin(), packet.begin() + length)),
        "80e0123400010203000000006bd08a5f70fe82fe16b49255f5fd1cf8c61e6cddfb29f01f0201000000000000");
}

TEST(Ap2RtpPackets, SyncNamesTheFrameHeardAtAPtpTime) {
    const auto first = makePtpSyncPacket(true, 1000, 0x0102030405060708, 90000, 0xA1B2C3D4E5F60718);
    // Bytes 4-7 are the frame heard then plus the receiver's 11035.
    EXPECT_EQ(vt::hap::toHex(vt::hap::Bytes(first.begin(), first.end())),
              "90d70006"
              "00002f03"
              "0102030405060708"
              "00015f90"
              "a1b2c3d4e5f60718");
    EXPECT_EQ(makePtpSyncPacket(false, 0, 0, 0, 0)[0], 0x80);
}
