// What goes on the wire, byte for byte where order is fixed, and back.
#include <gtest/gtest.h>

#include <set>

#include "remote/message_codec.h"
#include "remote/record_json.h"
#include "samples.h"

namespace vt::remote {
namespace {

using P = PhoneMessage;
using M = MacMessage;
using nlohmann::json;

json parsed(const std::string& line) {
    EXPECT_FALSE(line.empty());
    EXPECT_EQ(line.back(), '\n');
    EXPECT_EQ(line.find('\n'), line.size() - 1) << "a raw newline inside the JSON";
    return json::parse(line);
}

TEST(MessageJson, CasesAreOneKeyObjects) {
    EXPECT_EQ(encode(P::SetEQEnabled{true}), "{\"setEQEnabled\":{\"_0\":true}}\n");
    EXPECT_EQ(encode(P::Forget{}), "{\"forget\":{}}\n");
    EXPECT_EQ(encode(P::Ping{3, 1.5}), "{\"ping\":{\"id\":3,\"phoneSent\":1.5}}\n");
    EXPECT_EQ(encode(P::SetVolume{2, 0.5}), "{\"setVolume\":{\"slot\":2,\"volume\":0.5}}\n");
    EXPECT_EQ(encode(P::Media{MediaCommand::togglePlayPause}),
              "{\"media\":{\"_0\":\"togglePlayPause\"}}\n");
    EXPECT_EQ(encode(P::SetSeat{Seat{1, 2, 1.5, 0}}),
              "{\"setSeat\":{\"_0\":{\"x\":1.0,\"y\":2.0,\"z\":1.5,\"face\":0.0}}}\n");
}

TEST(MessageJson, AbsentOptionalsAreLeftOutAndNullOnlyInsideLists) {
    EXPECT_EQ(parsed(encode(P::Hello{"p", "Ana", std::nullopt, std::nullopt, std::nullopt})),
              json::parse(R"({"hello":{"phoneID":"p","phoneName":"Ana"}})"));
    EXPECT_EQ(parsed(encode(P::Rename{1, std::nullopt})), json::parse(R"({"rename":{"slot":1}})"));
    EXPECT_EQ(parsed(encode(P::Fly{})), json::parse(R"({"fly":{}})"));
    EXPECT_EQ(parsed(encode(M::Paired{std::nullopt, "a2V5"})),
              json::parse(R"({"paired":{"key":"a2V5"}})"));

    const std::string heard = R"({"heard":{"id":"r","arrivalsMac":[1.5,null,2.5]}})";
    EXPECT_EQ(encode(decodePhoneMessage(heard)), heard + "\n");
    const PhoneMessage m = decodePhoneMessage(heard);
    const auto* h = m.get<P::Heard>();
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->arrivalsMac, (std::vector<std::optional<double>>{1.5, std::nullopt, 2.5}));
}

TEST(MessageJson, IntegerKeyedDistancesRoundTripWithTheirNull) {
    const std::string ranged = R"({"ranged":{"id":"r","distances":{"3":2.25,"4":null}}})";
    const MacMessage m = decodeMacMessage(ranged);
    const auto* r = m.get<M::Ranged>();
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->distances, (std::map<int, std::optional<double>>{{3, 2.25}, {4, std::nullopt}}));
    EXPECT_EQ(encode(m), ranged + "\n");
}

TEST(MessageJson, BytesAreBase64AndFloatsShort) {
    EXPECT_EQ(parsed(encode(M::Artwork{"k", {'h', 'i', '!', '?'}})),
              json::parse(R"({"artwork":{"key":"k","jpeg":"aGkhPw=="}})"));
    LevelFrame f;
    f.slots = {2};
    f.peaks = {0.123f};
    f.left = 1.001f;
    f.right = 0;
    EXPECT_EQ(
        encode(M::Levels{f}),
        "{\"levels\":{\"_0\":{\"slots\":[2],\"peaks\":[0.123],\"left\":1.001,\"right\":0.0}}}\n");
}

TEST(MessageJson, StateCarriesEveryKeyOfItsRecords) {
    const json j = parsed(encode(M::State{samples::state()}));
    const json& s = j.at("state").at("_0");
    const json expectedRow0 = json::parse(R"({
        "slot":0,"name":"Speakers","kind":"builtIn","transport":"Audio · Built-in",
        "latencyMs":12.5,"trimMs":-3.25,"volume":0.75,"muted":false,"audible":true,
        "isReference":true,"stale":false,"source":"report","disabled":false,"renamed":false,
        "canReconnect":false,"gainDb":-1.5,"notTimed":false,
        "place":{"at":{"x":1.0,"y":2.0,"z":0.5},"stereo":true,"measuredDistance":2.25}})");
    json row0 = s.at("rows").at(0);
    ASSERT_TRUE(row0.contains("eq"));
    EXPECT_EQ(row0["eq"]["presetID"], "bass");
    EXPECT_EQ(row0["eq"]["bands"].size(), 6u);
    EXPECT_EQ(row0["eq"]["bands"][0].size(), 4u);
    for (const char* k : {"kind", "hz", "gainDb", "usesGain"})
        EXPECT_TRUE(row0["eq"]["bands"][0].contains(k)) << k;
    row0.erase("eq");
    EXPECT_EQ(row0, expectedRow0);
    EXPECT_EQ(s.at("rows").at(1).at("place"), json::parse(R"({"stereo":false,"zone":"Kitchen"})"));

    std::set<std::string> keys;
    for (const auto& [k, v] : s.items()) keys.insert(k);
    EXPECT_EQ(keys, (std::set<std::string>{"macName", "rows", "referenceSlot", "micConstantMs",
                                           "appVersion", "running", "master", "masterEQ", "presets",
                                           "nowPlaying", "extras", "soloSlot", "room",
                                           "systemVolume", "guestLink", "soundServer"}));
    EXPECT_EQ(s.at("masterEQ"), json::parse(R"({"enabled":false,"preampDb":0.0,"bands":[
        {"kind":"lowShelf","hz":80.0,"gainDb":0.0,"usesGain":true},
        {"kind":"peak","hz":220.0,"gainDb":0.0,"usesGain":true},
        {"kind":"peak","hz":650.0,"gainDb":0.0,"usesGain":true},
        {"kind":"peak","hz":1800.0,"gainDb":0.0,"usesGain":true},
        {"kind":"peak","hz":5000.0,"gainDb":0.0,"usesGain":true},
        {"kind":"highShelf","hz":10000.0,"gainDb":0.0,"usesGain":true}],
        "curve":[0.0,0.5,-1.0],"presetID":"flat"})"));
    EXPECT_EQ(s.at("room"), json::parse(R"({"enabled":true,
        "seat":{"x":2.6,"y":3.0,"z":1.1,"face":0.0},"stageWidthDeg":30.0,"focus":0.62,
        "width":5.2,"depth":4.4,"height":2.6,"flying":{"x":0.5,"y":1.0,"z":1.25}})"));
    EXPECT_EQ(s.at("nowPlaying"), json::parse(R"({"title":"Song","artist":"Artist",
        "album":"Album","playing":true,"artworkKey":"k1","duration":200.0,"elapsed":12.0,
        "elapsedAt":1000.5,"appName":"Player"})"));
    EXPECT_EQ(s.at("extras"), json::parse(R"([{"id":"uid:kitchen","name":"Kitchen",
        "kind":"other","transport":"Audio · Virtual"}])"));
}

// Each case of the message once, through the wire and back, under its key.
template <class Message, class Decode>
void expectEveryCaseRoundTrips(const std::vector<Message>& all, Decode decode) {
    std::set<std::size_t> seen;
    for (const Message& m : all) seen.insert(m.value.index());
    EXPECT_EQ(seen.size(), std::variant_size_v<typename Message::Value>);
    EXPECT_EQ(all.size(), seen.size());
    for (const Message& m : all) {
        const std::string line = encode(m);
        EXPECT_EQ(decode(line.substr(0, line.size() - 1)), m) << line;
        EXPECT_EQ(parsed(line).begin().key(), m.key());
    }
}

TEST(MessageJson, EveryMessageRoundTrips) {
    expectEveryCaseRoundTrips(samples::phoneMessages(),
                              [](std::string_view line) { return decodePhoneMessage(line); });
    expectEveryCaseRoundTrips(samples::macMessages(),
                              [](std::string_view line) { return decodeMacMessage(line); });
}

TEST(MessageJson, ThePhoneAndTheComputerDoNotReadEachOthersMessages) {
    EXPECT_FALSE(tryDecodeMacMessage(R"({"ping":{"id":1,"phoneSent":0}})"));
    EXPECT_FALSE(tryDecodePhoneMessage(R"({"pong":{"id":1,"phoneSent":0,"macTime":2}})"));
}

TEST(MessageJson, RecordsStandAlone) {
    const MacState s = samples::state();
    EXPECT_EQ(fromJson<MacState>(json::parse(toJson(s).dump())), s);
    EXPECT_EQ(fromJson<RoomState>(json::parse(toJson(RoomState{}).dump())), RoomState{});
    EXPECT_THROW(fromJson<RowInfo>(json::array()), DecodeError);
}

TEST(MessageJson, EqualiserProjection) {
    equaliser::EQSettings eq = equaliser::EQSettings::flat();
    eq.enabled = true;
    eq.preampDb = -3;
    eq.bands[1] = {equaliser::EQKind::notch, 60, 5, 10};
    const RowEQ row = RowEQ::from(eq, std::nullopt);
    EXPECT_TRUE(row.enabled);
    ASSERT_EQ(row.bands.size(), 6u);
    EXPECT_EQ(row.bands[1], (Band{equaliser::EQKind::notch, 60, 5, false}));
    EXPECT_EQ(row.bands[0], (Band{equaliser::EQKind::lowShelf, 80, 0, true}));
    EXPECT_EQ(toJson(row.bands[1]),
              nlohmann::ordered_json::parse(
                  R"({"kind":"notch","hz":60.0,"gainDb":5.0,"usesGain":false})"));
    EXPECT_EQ(RemoteEQ::from(eq, {1, 2}, "x").preampDb, -3);
}

}  // namespace
}  // namespace vt::remote
