#include "mixer/mixer_settings.h"

#include <gtest/gtest.h>

namespace vt::mixer {
namespace {

TEST(MixerSettings, PlayedMultipliesLevelsAndAnyMuteSilences) {
    MixerSettings s;
    EXPECT_EQ(s.played("org.example.Unknown"), 1.0);
    s.setLevel("app", 0.3);
    s.toggleMute("app");
    EXPECT_EQ(s.played("app"), 0.0);
    s.toggleMute("app");
    EXPECT_DOUBLE_EQ(s.played("app"), 0.3);

    const std::string a = s.createGroup("A", 0.5, {"two"});
    const std::string b = s.createGroup("B", 0.5, {"two"});
    EXPECT_DOUBLE_EQ(s.played("two"), 0.25);
    s.toggleGroupMute(b);
    EXPECT_EQ(s.played("two"), 0.0);
    EXPECT_EQ(s.mutingGroup("two")->id, b);
    s.setGroupLevel(b, 0.8);  // a fader unmutes
    EXPECT_FALSE(s.group(b)->muted);
    EXPECT_EQ(s.loweringGroups("two").size(), 2u);
    (void)a;
}

TEST(MixerSettings, AutomaticGroupsKeepCorrectionsMinimal) {
    MixerSettings s;
    EXPECT_TRUE(s.members(*s.group("music")).contains("spotify"));
    EXPECT_FALSE(s.members(*s.group("music")).contains("firefox"));  // browsers: no rule
    s.setMember("spotify", "music", false);
    EXPECT_FALSE(s.members(*s.group("music")).contains("spotify"));
    EXPECT_TRUE(s.hasCorrections("music"));
    s.setMember("spotify", "music", true);
    EXPECT_TRUE(s.group("music")->added.empty());
    EXPECT_TRUE(s.group("music")->removed.empty());
    s.setMembers("calls", {"zoom", "my-player"});
    EXPECT_EQ(s.members(*s.group("calls")), (std::set<std::string>{"zoom", "my-player"}));
    s.resetGroup("calls");
    EXPECT_FALSE(s.hasCorrections("calls"));
    s.removeGroup("music");  // automatic groups stay
    EXPECT_NE(s.group("music"), nullptr);
}

TEST(MixerSettings, NewGroupsTakeTheLeastUsedHueInPreferenceOrder) {
    MixerSettings s;
    std::vector<int> hues;
    for (int i = 0; i < 3; ++i) hues.push_back(s.group(s.createGroup(" G ", 2.0, {}))->hue);
    EXPECT_EQ(hues, (std::vector<int>{0, 3, 0}));
    EXPECT_EQ(s.groups.back().name, "G");
    EXPECT_EQ(s.groups.back().level, 1.0);
}

TEST(MixerSettings, ADamagedRecordCostsOnlyItsBrokenEntries) {
    const auto j = nlohmann::json::parse(R"({
        "apps": {"a": {"level": 7, "muted": "yes"}, "b": 3, "c": {"level": -1, "name": "C"}},
        "groups": [
            {"id": "music", "kind": "custom", "name": "Fake"},
            {"id": "calls", "kind": "calls", "name": "Renamed", "level": 0.5},
            {"name": "no id"}, 12,
            {"id": "x", "kind": "strange", "hue": 99, "added": ["p", 4]},
            {"id": "x", "kind": "custom", "name": "second x"}
        ]})");
    MixerSettings s = MixerSettings::fromJson(j);
    EXPECT_EQ(s.apps.size(), 2u);
    EXPECT_EQ(s.apps["a"].level, 1.0);
    EXPECT_FALSE(s.apps["a"].muted);
    EXPECT_EQ(s.apps["c"].level, 0.0);
    ASSERT_EQ(s.groups.size(), 4u);
    EXPECT_EQ(s.groups[1].id, "music");
    EXPECT_EQ(s.groups[1].name, "Music");
    EXPECT_TRUE(s.groups[1].automatic);
    EXPECT_EQ(s.groups[2].name, "Voice");
    EXPECT_EQ(s.groups[2].level, 0.5);
    EXPECT_EQ(s.groups[3].id, "x");
    EXPECT_EQ(s.groups[3].hue, MixerSettings::hueCount - 1);
    EXPECT_EQ(s.groups[3].added, std::set<std::string>{"p"});
    EXPECT_EQ(MixerSettings::fromJson(s.toJson()), s);
}

}  // namespace
}  // namespace vt::mixer
