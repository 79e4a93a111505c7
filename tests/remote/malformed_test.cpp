// Lines a broken or hostile peer might send.
#include <gtest/gtest.h>

#include <climits>

#include "remote/message_codec.h"
#include "remote/record_json.h"
#include "samples.h"

namespace vt::remote {
namespace {

using P = PhoneMessage;
using M = MacMessage;
using nlohmann::json;

std::string decodeError(std::string_view line) {
    try {
        decodePhoneMessage(line);
    } catch (const DecodeError& e) {
        return e.what();
    }
    return "decoded";
}

template <class Case>
Case phone(std::string_view line) {
    const PhoneMessage m = decodePhoneMessage(line);
    const Case* c = m.get<Case>();
    EXPECT_NE(c, nullptr) << line;
    return c ? *c : Case{};
}

TEST(Malformed, TopLevelMustHoldExactlyOneKnownKey) {
    EXPECT_EQ(decodeError(R"({"forget":{},"playPause":{}})"),
              "Invalid number of keys found, expected one.");
    EXPECT_EQ(decodeError("{}"), "Invalid number of keys found, expected one.");
    EXPECT_NE(decodeError(R"({"teleport":{}})"), "decoded");
    EXPECT_NE(decodeError(R"({"forget":null})"), "decoded");
    EXPECT_NE(decodeError(R"({"forget":[]})"), "decoded");
    EXPECT_NE(decodeError(R"(["forget"])"), "decoded");
    EXPECT_NE(decodeError(R"("forget")"), "decoded");
    // Extra keys inside a case belong to a newer peer and are passed over.
    EXPECT_EQ(decodeError(R"({"forget":{"why":"moving"}})"), "decoded");
}

TEST(Malformed, TextThatIsNotJsonDoesNotDecode) {
    for (std::string_view line :
         {"", " ", "{", R"({"ping":{"id":3,"phoneSent":1.5})",
          R"({"ping":{"id":NaN,"phoneSent":1}})", R"({"seek":{"seconds":1e400}})",
          R"({"seek":{"seconds":Infinity}})", "{\"rename\":{\"slot\":1,\"name\":\"\xff\xfe\"}}",
          R"({"rename":{"slot":1,"name":"\ud800"}})", R"({"forget":{}} {"forget":{}})"}) {
        EXPECT_NE(decodeError(line), "decoded") << line;
    }
}

TEST(Malformed, DeepNestingIsRefusedBeforeParsing) {
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    EXPECT_EQ(decodeError(deep), "The line nests too deeply.");
    // Brackets inside strings do not count.
    const std::string quoted = "{\"addOutput\":{\"id\":\"" + std::string(1000, '[') + "\"}}";
    EXPECT_EQ(phone<P::AddOutput>(quoted).id.size(), 1000u);
}

TEST(Malformed, MissingRequiredKeysFailMissingOptionalsDoNot) {
    EXPECT_NE(decodeError(R"({"setVolume":{"slot":1}})"), "decoded");
    EXPECT_NE(decodeError(R"({"hello":{"phoneID":"p"}})"), "decoded");
    EXPECT_EQ(phone<P::Hello>(R"({"hello":{"phoneID":"p","phoneName":"n"}})").version,
              std::nullopt);
    EXPECT_EQ(phone<P::RemoveOutput>(R"({"removeOutput":{"slot":2,"guestID":null}})").guestID,
              std::nullopt);
}

TEST(Malformed, WrongTypesTakeTheDefaultAndSlotsBecomeNoRow) {
    const auto v = phone<P::SetVolume>(R"({"setVolume":{"slot":"2","volume":"loud"}})");
    EXPECT_EQ(v.slot, -1);
    EXPECT_EQ(v.volume, 0.0);
    EXPECT_FALSE(phone<P::SetEQEnabled>(R"({"setEQEnabled":{"_0":1}})").value);
    EXPECT_EQ(phone<P::Hello>(R"({"hello":{"phoneID":7,"phoneName":null,"version":"3"}})"),
              (P::Hello{}));
    EXPECT_EQ(phone<P::SetPlace>(R"({"setPlace":{"slot":1,"at":{"x":1,"y":2}}})").at, std::nullopt);
}

TEST(Malformed, NumbersAreClampedIntoRange) {
    EXPECT_EQ(phone<P::SetVolume>(R"({"setVolume":{"slot":0,"volume":7}})").volume, 1.0);
    EXPECT_EQ(phone<P::SetMaster>(R"({"setMaster":{"volume":-0.5}})").volume, 0.0);
    EXPECT_EQ(phone<P::SetEQGain>(R"({"setEQGain":{"band":0,"db":99}})").db, 24.0);
    EXPECT_EQ(phone<P::SetRowEQGain>(R"({"setRowEQGain":{"slot":0,"band":1,"db":-1e300}})").db,
              -24.0);
    EXPECT_EQ(phone<P::Seek>(R"({"seek":{"seconds":-4}})").seconds, 0.0);
    const auto stage = phone<P::SetStage>(R"({"setStage":{"widthDeg":5,"focus":3}})");
    EXPECT_EQ(stage.widthDeg, 15.0);
    EXPECT_EQ(stage.focus, 1.0);
    const auto size = phone<P::SetRoomSize>(R"({"setRoomSize":{"width":0,"depth":99,"height":1}})");
    EXPECT_EQ(size.width, 1.0);
    EXPECT_EQ(size.depth, 50.0);
    EXPECT_EQ(size.height, 1.5);
}

TEST(Malformed, HugeAndFractionalIntegers) {
    EXPECT_EQ(phone<P::Solo>(R"({"solo":{"slot":99999999999999999999}})").slot, INT_MAX);
    EXPECT_EQ(phone<P::Solo>(R"({"solo":{"slot":-99999999999999999999}})").slot, INT_MIN);
    EXPECT_EQ(phone<P::Solo>(R"({"solo":{"slot":18446744073709551615}})").slot, INT_MAX);
    EXPECT_EQ(phone<P::Solo>(R"({"solo":{"slot":3.0}})").slot, 3);
    EXPECT_EQ(phone<P::Solo>(R"({"solo":{"slot":2.5}})").slot, -1);
    EXPECT_EQ(phone<P::Ping>(R"({"ping":{"id":18446744073709551615,"phoneSent":0}})").id,
              INT64_MAX);
    EXPECT_EQ(phone<P::Ping>(R"({"ping":{"id":-9223372036854775808,"phoneSent":0}})").id,
              INT64_MIN);
}

TEST(Malformed, UnknownEnumValues) {
    EXPECT_NE(decodeError(R"({"media":{"_0":"rewind"}})"), "decoded");
    EXPECT_NE(decodeError(R"({"measure":{"id":"r","slot":1,"role":7}})"), "decoded");
    const json row = json::parse(R"({"slot":1,"name":"n","kind":"spaceship","transport":"t",
        "latencyMs":0,"trimMs":0,"volume":1,"muted":false,"audible":true,"isReference":false,
        "stale":false,"source":"none","eq":{"enabled":true,"bands":[
        {"kind":"band","hz":5,"gainDb":0,"usesGain":true}]}})");
    const RowInfo r = fromJson<RowInfo>(row);
    EXPECT_EQ(r.kind, RowInfo::Kind::other);
    ASSERT_TRUE(r.eq);
    ASSERT_EQ(r.eq->bands.size(), 1u);
    EXPECT_EQ(r.eq->bands[0].kind, equaliser::EQKind::off);
    EXPECT_EQ(r.eq->bands[0].hz, 20.0);
}

json stateJson() {
    return json::parse(toJson(samples::state()).dump());
}

TEST(Malformed, RowInfoFromAnOlderComputerDecodes) {
    json row = stateJson()["rows"][0];
    for (const char* late :
         {"disabled", "renamed", "canReconnect", "eq", "gainDb", "place", "notTimed", "guestID"})
        row.erase(late);
    const RowInfo r = fromJson<RowInfo>(row);
    EXPECT_FALSE(r.notTimed);
    EXPECT_FALSE(r.disabled);
    EXPECT_EQ(r.eq, std::nullopt);
    EXPECT_EQ(r.place, std::nullopt);
    EXPECT_EQ(r.name, "Speakers");

    row.erase("source");
    EXPECT_THROW(fromJson<RowInfo>(row), DecodeError);
}

TEST(Malformed, StateWithoutPresetsDoesNotDecode) {
    json state = stateJson();
    state.erase("presets");
    const std::string line = json{{"state", {{"_0", state}}}}.dump();
    EXPECT_FALSE(tryDecodeMacMessage(line));
}

TEST(Malformed, BrokenListEntriesAreSkipped) {
    json state = stateJson();
    json noSlot = state["rows"][0];
    noSlot.erase("slot");
    state["rows"] = json::array({7, state["rows"][0], noSlot, "row", state["rows"][1]});
    state["presets"].push_back({{"id", "x"}});
    state["presets"].push_back(nullptr);
    state["masterEQ"]["curve"] = json::array({1, "x", 2});
    const MacState s = fromJson<MacState>(state);
    ASSERT_EQ(s.rows.size(), 2u);
    EXPECT_EQ(s.rows[0].slot, 0);
    EXPECT_EQ(s.rows[1].slot, 8);
    EXPECT_EQ(s.presets.size(), 2u);
    EXPECT_EQ(s.masterEQ.curve, (std::vector<double>{1, 2}));
}

TEST(Malformed, ABrokenNestedRecordIsAbsentWhenOptionalAndFatalWhenRequired) {
    json state = stateJson();
    state["room"].erase("seat");
    state["nowPlaying"] = 5;
    state["rows"][0]["place"]["at"] = "here";
    const MacState s = fromJson<MacState>(state);
    EXPECT_EQ(s.room, std::nullopt);
    EXPECT_EQ(s.nowPlaying, std::nullopt);
    ASSERT_EQ(s.rows.size(), 2u);
    ASSERT_TRUE(s.rows[0].place);
    EXPECT_EQ(s.rows[0].place->at, std::nullopt);
    EXPECT_TRUE(s.rows[0].place->stereo);

    state["masterEQ"].erase("bands");
    EXPECT_THROW(fromJson<MacState>(state), DecodeError);
    state["masterEQ"] = json::array();
    EXPECT_THROW(fromJson<MacState>(state), DecodeError);
    EXPECT_NE(decodeError(R"({"setSeat":{"_0":{"x":1,"y":2,"z":3}}})"), "decoded");
}

TEST(Malformed, PositionalListsKeepTheirPositions) {
    const auto heard = phone<P::Heard>(R"({"heard":{"id":"r","arrivalsMac":[1,"x",{},null,3]}})");
    EXPECT_EQ(heard.arrivalsMac,
              (std::vector<std::optional<double>>{1, std::nullopt, std::nullopt, std::nullopt, 3}));

    const MacMessage levels = decodeMacMessage(
        R"({"levels":{"_0":{"slots":[0,"x",2,3],"peaks":[0.5,0.25,9,"y",1],"left":-1,"right":3}}})");
    const LevelFrame& f = levels.get<M::Levels>()->value;
    EXPECT_EQ(f.slots, (std::vector<int>{0, 2}));
    EXPECT_EQ(f.peaks, (std::vector<float>{0.5f, 2.0f}));
    EXPECT_EQ(f.left, 0.0f);
    EXPECT_EQ(f.right, 2.0f);

    const MacMessage ranged = decodeMacMessage(
        R"({"ranged":{"id":"r","distances":{"1":1.5,"x":2,"01":3,"-2":4,"5":"far","6":-1}}})");
    EXPECT_EQ(
        ranged.get<M::Ranged>()->distances,
        (std::map<int, std::optional<double>>{{1, 1.5}, {-2, 4}, {5, std::nullopt}, {6, 0.0}}));
}

TEST(Malformed, BadBase64LeavesTheImageEmpty) {
    for (const char* jpeg : {"a", "!!!!", "aGk=aGk=", "aGk", "a===", "aGkh Pw=="}) {
        const std::string line = std::string(R"({"artwork":{"key":"k","jpeg":")") + jpeg + "\"}}";
        EXPECT_TRUE(decodeMacMessage(line).get<M::Artwork>()->jpeg.empty()) << jpeg;
    }
}

TEST(Malformed, WritingNeverProducesBrokenJson) {
    P::Rename bad{1, std::string("Caf\xc3", 4)};
    const std::string line = encode(bad);
    const auto back = phone<P::Rename>(line.substr(0, line.size() - 1));
    EXPECT_EQ(back.name, "Caf\xef\xbf\xbd");

    const std::string nan = encode(P::SetTrim{1, std::nan("")});
    EXPECT_EQ(nan, "{\"setTrim\":{\"slot\":1,\"ms\":0.0}}\n");
    EXPECT_EQ(json::parse(encode(P::Seek{INFINITY}))["seek"]["seconds"], 0.0);
}

}  // namespace
}  // namespace vt::remote
