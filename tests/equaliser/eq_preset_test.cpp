// The presets: their published data, their preamps as the suggestion rule
// computes them, and matching a row's settings back to a preset.
#include <gtest/gtest.h>

#include "equaliser/eq_preset.h"

namespace vt::equaliser {
namespace {

TEST(EQPresetTest, SevenEnabledPresetsInOrder) {
    const auto& all = EQPreset::all();
    ASSERT_EQ(all.size(), 7u);
    const char* ids[] = {"flat", "bass", "small", "voice", "bright", "warm", "night"};
    const char* names[] = {"Flat",   "More bass", "Small speaker", "Voice",
                           "Bright", "Warm",      "Late night"};
    for (size_t i = 0; i < 7; ++i) {
        EXPECT_EQ(all[i].id, ids[i]);
        EXPECT_EQ(all[i].name, names[i]);
        EXPECT_TRUE(all[i].settings.enabled);
        EXPECT_EQ(all[i].settings.bands.size(), 6u);
        EXPECT_EQ(EQPreset::find(ids[i]), &all[i]);
    }
    EXPECT_EQ(all[1].detail, "A lift under 90 Hz, and the mud above it taken out");
    EXPECT_EQ(all[2].detail, "Cuts what a little speaker cannot play anyway");
    EXPECT_EQ(all[6].detail, "Both ends lifted, so quiet still sounds full");
    EXPECT_EQ(all[0].settings.bands, EQSettings::flatBands());
    EXPECT_EQ(EQPreset::find("loud"), nullptr);
}

TEST(EQPresetTest, EachPreampIsWhatTheSuggestionRuleGives) {
    for (const EQPreset& p : EQPreset::all()) {
        EXPECT_EQ(p.settings.suggestedPreampDb(48000), p.settings.preampDb) << p.id;
    }
}

TEST(EQPresetTest, MatchingComparesBandsAndPreampButNotTheSwitch) {
    EQSettings row = EQPreset::all()[4].settings;
    row.enabled = false;
    ASSERT_NE(EQPreset::matching(row), nullptr);
    EXPECT_EQ(EQPreset::matching(row)->id, "bright");
    row.preampDb = -4;
    EXPECT_EQ(EQPreset::matching(row), nullptr);
    row.preampDb = -5;
    row.bands[3].q = 1.01;
    EXPECT_EQ(EQPreset::matching(row), nullptr);
    EXPECT_EQ(EQPreset::matching(EQSettings::flat())->id, "flat");
}

}  // namespace
}  // namespace vt::equaliser
