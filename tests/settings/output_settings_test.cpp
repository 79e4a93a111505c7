#include "settings/output_settings.h"

#include <gtest/gtest.h>

namespace vt::settings {
namespace {

using nlohmann::json;

TEST(OutputSettings, RoundTripsEveryField) {
    OutputSettings s;
    s.deviceUID = "uid";
    s.deviceName = "Name";
    s.airplayID = "air";
    s.airplayName = "Air";
    s.castID = "cast";
    s.castName = "Cast";
    s.delayMs = -4999.5;
    s.volume = 0.25;
    s.muted = s.collapsed = s.disabled = true;
    s.order = 3;
    s.hue = 7;
    s.measuredLatencyMs = 212.5;
    s.latencySource = LatencySource::narrowed;
    s.eq.enabled = true;
    s.eq.bands[2].gainDb = 4;
    s.place = json{{"stereo", true}, {"at", {{"x", 1.5}, {"y", 0}, {"z", 2}}}};
    EXPECT_EQ(json(s).get<OutputSettings>(), s);
}

TEST(OutputSettings, AbsentOptionalsAreLeftOut) {
    json j = OutputSettings{};
    for (const char* key : {"deviceUID", "deviceName", "airplayID", "airplayName", "castID",
                            "castName", "order", "hue", "place"})
        EXPECT_FALSE(j.contains(key)) << key;
    EXPECT_EQ(j["latencySource"], "none");
    EXPECT_EQ(j["volume"], 1.0);
}

TEST(OutputSettings, BadFieldsKeepDefaultsAndNumbersAreClamped) {
    json j = {{"deviceUID", 5},
              {"delayMs", 99999},
              {"volume", -2},
              {"muted", "true"},
              {"order", 2.6},
              {"hue", "red"},
              {"measuredLatencyMs", 1e12},
              {"latencySource", "guessed"},
              {"eq", 3},
              {"place", "kitchen"},
              {"disabled", true}};
    auto s = j.get<OutputSettings>();
    EXPECT_FALSE(s.deviceUID);
    EXPECT_EQ(s.delayMs, 5000);
    EXPECT_EQ(s.volume, 0);
    EXPECT_FALSE(s.muted);
    EXPECT_EQ(s.order, 3);
    EXPECT_FALSE(s.hue);
    EXPECT_EQ(s.measuredLatencyMs, 60000);
    EXPECT_EQ(s.latencySource, LatencySource::none);
    EXPECT_EQ(s.eq, equaliser::EQSettings::flat());
    EXPECT_FALSE(s.place);
    EXPECT_TRUE(s.disabled);

    EXPECT_EQ(json::array({1, 2}).get<OutputSettings>(), OutputSettings{});
    EXPECT_EQ(json("x").get<RememberedOutput>(), RememberedOutput{});
}

TEST(RememberedOutput, RoundTripsAndSharesTheRowsRules) {
    RememberedOutput r;
    r.delayMs = 40;
    r.volume = 0.8;
    r.muted = true;
    r.measuredLatencyMs = 15;
    r.latencySource = LatencySource::reported;
    r.place = json{{"zone", "left"}};
    EXPECT_EQ(json(r).get<RememberedOutput>(), r);
    EXPECT_EQ((json{{"volume", 3}}).get<RememberedOutput>().volume, 1.0);
}

TEST(MemoryKey, TheMoreSpecificTransportWins) {
    EXPECT_EQ(memoryKey("dev", "air1", "cast1"), "cast:cast1");
    EXPECT_EQ(memoryKey("dev", "air1", std::nullopt), "air:air1");
    EXPECT_EQ(memoryKey("dev", std::nullopt, std::nullopt), "uid:dev");
    EXPECT_FALSE(memoryKey(std::nullopt, std::nullopt, std::nullopt));
}

}  // namespace
}  // namespace vt::settings
