#include "sendspin/protocol.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace vt::sendspin {
namespace {

namespace P = SendspinProtocol;

template <typename T>
T as(const std::optional<P::ClientMessage>& m) {
    EXPECT_TRUE(m);
    EXPECT_TRUE(m && std::holds_alternative<T>(*m));
    return m && std::holds_alternative<T>(*m) ? std::get<T>(*m) : T{};
}

TEST(SendspinBuilders, SerialiseCompactWithSortedKeys) {
    EXPECT_EQ(
        P::serverHello("srv", "Kitchen"),
        R"({"payload":{"active_roles":["player@v1","metadata@v1"],"connection_reason":)"
        R"("playback","name":"Kitchen","server_id":"srv","version":1},"type":"server/hello"})");
    EXPECT_EQ(
        P::serverTime(-5, 10, 11),
        R"({"payload":{"client_transmitted":-5,"server_received":10,"server_transmitted":11},)"
        R"("type":"server/time"})");
    EXPECT_EQ(
        P::streamStart(48000, 2, 16, 99),
        R"({"payload":{"player":{"bit_depth":16,"channels":2,"codec":"pcm","sample_rate":48000},)"
        R"("server_transmitted":99},"type":"stream/start"})");
    EXPECT_EQ(P::streamEnd(), R"({"payload":{"roles":["player"]},"type":"stream/end"})");
    EXPECT_EQ(P::serverState("T", "A", "B", std::nullopt, 7),
              R"({"payload":{"metadata":{"album":"B","artist":"A","artwork_url":null,)"
              R"("timestamp":7,"title":"T"}},"type":"server/state"})");
    EXPECT_EQ(P::clientTime(42), R"({"payload":{"client_transmitted":42},"type":"client/time"})");
    EXPECT_EQ(P::clientGoodbye("user_request"),
              R"({"payload":{"reason":"user_request"},"type":"client/goodbye"})");
    // Text that cannot be serialised falls back to an empty object.
    EXPECT_EQ(P::clientGoodbye("\xff"), "{}");
}

TEST(SendspinBuilders, ServerHelloActivatesOnlyRolesTheClientOffers) {
    const auto hello = nlohmann::json::parse(
        P::serverHello("s", "n", std::vector<std::string>{"controller@v1", "metadata@v1"}));
    EXPECT_EQ(hello["payload"]["active_roles"], nlohmann::json::array({"metadata@v1"}));
}

TEST(SendspinBuilders, ClientHelloRoundTripsThroughTheServerParser) {
    const auto hello = as<P::ClientHello>(P::parse(P::clientHello("phone-1", "Ann")));
    EXPECT_EQ(hello.clientID, "phone-1");
    EXPECT_EQ(hello.name, "Ann");
    EXPECT_TRUE(hello.supportsOurFormat);
    ASSERT_TRUE(hello.supportedRoles);
    EXPECT_EQ(hello.supportedRoles->size(), 2u);
}

TEST(SendspinParse, RefusesWhatIsNotAMessage) {
    for (const char* text : {"", "nope", "[]", "{}", R"({"type":5})", R"({"type":"client/time"})",
                             R"({"type":"client/time","payload":{"client_transmitted":"1"}})"}) {
        EXPECT_FALSE(P::parse(text)) << text;
    }
}

TEST(SendspinParse, ReadsEachClientCase) {
    // Large integers survive exactly: a client compares the echo with what it sent.
    for (const auto& [sent, read] :
         std::vector<std::pair<std::string, int64_t>>{{"1.9", 1},
                                                      {"-1.9", -1},
                                                      {"9007199254740993", 9007199254740993},
                                                      {"1e300", INT64_MAX}}) {
        const std::string text =
            R"({"type":"client/time","payload":{"client_transmitted":)" + sent + "}}";
        EXPECT_EQ(as<P::ClientTime>(P::parse(text)).clientTransmitted, read) << sent;
    }

    const auto hello = as<P::ClientHello>(P::parse(R"({"type":"client/hello"})"));
    EXPECT_EQ(hello.clientID, "");
    EXPECT_EQ(hello.name, "");
    EXPECT_FALSE(hello.supportedRoles);
    EXPECT_FALSE(hello.supportsOurFormat);

    EXPECT_EQ(as<P::ClientGoodbye>(P::parse(R"({"type":"client/goodbye","payload":[]})")).reason,
              std::nullopt);
    EXPECT_EQ(as<P::ClientOther>(P::parse(R"({"type":"group/join","payload":1})")).type,
              "group/join");
}

TEST(SendspinParse, FindsOurFormatAnywhereInAnyFormatList) {
    const auto later = as<P::ClientHello>(P::parse(R"({"type":"client/hello","payload":{
        "client_id":"x","name":"y","supported_roles":["player@v1","controller@v1"],
        "device_info":{"os":"web"},
        "player@v1_support":{"supported_formats":[
            {"codec":"opus","sample_rate":48000,"channels":2,"bit_depth":16},
            {"codec":"pcm","sample_rate":48000,"channels":2,"bit_depth":16}],
          "supported_commands":["volume","mute"]}}})"));
    EXPECT_TRUE(later.supportsOurFormat);
    const auto legacy = as<P::ClientHello>(P::parse(R"({"type":"client/hello","payload":{
        "player_support":{"supported_formats":[
            {"codec":"pcm","sample_rate":48000,"channels":2,"bit_depth":16}]}}})"));
    EXPECT_TRUE(legacy.supportsOurFormat);
    const auto wrong = as<P::ClientHello>(P::parse(R"({"type":"client/hello","payload":{
        "player@v1_support":{"supported_formats":[
            {"codec":"pcm","sample_rate":44100,"channels":2,"bit_depth":16}]}}})"));
    EXPECT_FALSE(wrong.supportsOurFormat);
    EXPECT_TRUE(wrong.listedFormats);
    ASSERT_TRUE(P::formatRefusal(wrong));
    EXPECT_NE(P::formatRefusal(wrong)->find("no pcm 48000 Hz"), std::string::npos);
    EXPECT_FALSE(P::formatRefusal(later));
    EXPECT_FALSE(P::formatRefusal(P::ClientHello{}));
}

TEST(SendspinParse, AcceptsEveryFormOfClientState) {
    const auto nested = as<P::ClientState>(P::parse(
        R"({"type":"client/state","payload":{"player":{"state":"synchronized","volume":5,
            "static_delay_ms":12.5}}})"));
    EXPECT_EQ(nested.player, "synchronized");
    EXPECT_EQ(nested.staticDelayMs, 12.5);
    const auto top = as<P::ClientState>(P::parse(
        R"({"type":"client/state","payload":{"state":"error","available":true,"output_delay_ms":40}})"));
    EXPECT_EQ(top.player, "error");
    EXPECT_EQ(top.available, true);
    EXPECT_EQ(top.outputDelayMs, 40);
    const auto delta =
        as<P::ClientState>(P::parse(R"({"type":"client/state","payload":{"player":{}}})"));
    EXPECT_FALSE(delta.player);
    EXPECT_FALSE(delta.staticDelayMs);
}

TEST(SendspinParseServer, ReadsEachServerCase) {
    const auto time = P::parseServer(P::serverTime(1, 2, 3));
    ASSERT_TRUE(time && std::holds_alternative<P::ServerTime>(*time));
    EXPECT_EQ(std::get<P::ServerTime>(*time).serverTransmitted, 3);
    EXPECT_FALSE(P::parseServer(
        R"({"type":"server/time","payload":{"client_transmitted":1,"server_received":2}})"));

    const auto start = P::parseServer(
        R"({"type":"stream/start","payload":{"player":{"sample_rate":"x","channels":1}}})");
    ASSERT_TRUE(start && std::holds_alternative<P::ServerStreamStart>(*start));
    EXPECT_EQ(std::get<P::ServerStreamStart>(*start).sampleRate, 48000);
    EXPECT_EQ(std::get<P::ServerStreamStart>(*start).channels, 1);
    EXPECT_EQ(std::get<P::ServerStreamStart>(*start).bitDepth, 16);

    const auto state = P::parseServer(P::serverState("T", "A", "B", "data:x", 1));
    ASSERT_TRUE(state && std::holds_alternative<P::ServerState>(*state));
    EXPECT_EQ(std::get<P::ServerState>(*state).artworkURL, "data:x");
    EXPECT_TRUE(std::holds_alternative<P::ServerHello>(*P::parseServer(P::serverHello("a", "b"))));
    EXPECT_TRUE(std::holds_alternative<P::ServerStreamEnd>(*P::parseServer(P::streamEnd())));
    EXPECT_TRUE(std::holds_alternative<P::ServerOther>(*P::parseServer(R"({"type":"x"})")));
}

TEST(SendspinAudioChunk, StampIsBigEndianAndSamplesLittleEndian) {
    const int16_t pcm[] = {0x0102, -2};
    const std::string chunk = P::audioChunk(0x0102030405060708, pcm);
    EXPECT_EQ(chunk, std::string("\x04\x01\x02\x03\x04\x05\x06\x07\x08\x02\x01\xFE\xFF", 13));
    const auto parsed = P::parseAudioChunk(chunk);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->first, 0x0102030405060708);
    EXPECT_EQ(parsed->second.size(), 4u);

    EXPECT_EQ(P::parseAudioChunk(P::audioChunk(-1, {}))->first, -1);
    EXPECT_TRUE(P::parseAudioChunk(P::audioChunk(5, {}))->second.empty());
    EXPECT_FALSE(P::parseAudioChunk(std::string(8, '\x04')));
    std::string other = chunk;
    other[0] = 3;
    EXPECT_FALSE(P::parseAudioChunk(other));
}

}  // namespace
}  // namespace vt::sendspin
